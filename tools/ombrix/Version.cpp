#include "Version.h"

#include <openssl/crypto.h>

#include <lua.hpp>

#include "BuildInfo.h"

namespace OmbrixTool {

namespace {

// The version a module reports through its GetModuleVersion export.
std::string ModuleVersion(const Ombrix::Host::LoadedModule& module) {
    const auto found = module.exports.find("GetModuleVersion");
    return found == module.exports.end() || found->second.empty() ? "(no version)" : found->second;
}

std::string OpenSSLVersion() {
    // "OpenSSL 3.0.17 1 Jul 2025": the library loaded, not the headers compiled against.
    return OpenSSL_version(OPENSSL_VERSION);
}

std::string CommandVersion() { return std::string("ombrix ") + kVersion + " (" LUA_RELEASE; }

}  // namespace

std::string VersionText(const Ombrix::Host::Engine& engine) {
    std::string text = CommandVersion() + ")\n";
    for (const auto& module : engine.Modules()) {
        if (!module->handle) continue;  // the host's own modules (JSON, Net)
        text += module->name + " " + ModuleVersion(*module) + " " + module->path + "\n";
    }
    return text + OpenSSLVersion() + "\n";
}

std::string Banner(const Ombrix::Host::Engine& engine) {
    std::string text = CommandVersion() + ", " + OpenSSLVersion() + ")";
    const char* separator = " with ";
    for (const auto& module : engine.Modules()) {
        if (!module->handle) continue;
        text += separator + module->name + " " + ModuleVersion(*module);
        separator = ", ";
    }
    return text;
}

}  // namespace OmbrixTool
