#include "ModuleSearch.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "BuildInfo.h"

namespace OmbrixTool {

namespace {

bool IsRegularFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

std::vector<std::string> ModuleDirectories(const std::string& executable, const char* modulePath) {
    std::vector<std::string> directories;
    if (modulePath) {
        const std::string list(modulePath);
        size_t start = 0;
        while (start <= list.size()) {
            const size_t colon = std::min(list.find(':', start), list.size());
            if (colon > start) directories.push_back(list.substr(start, colon - start));
            start = colon + 1;
        }
    }
    const std::filesystem::path binary = std::filesystem::path(executable).parent_path();
    const std::filesystem::path base = binary.empty() ? std::filesystem::path(".") : binary;
    directories.push_back((base / kModuleDirFromBinary).lexically_normal().string());
    directories.push_back(base.string());
    return directories;
}

std::string ModuleFileName(const std::string& name) {
    return EndsWith(name, ".so") ? name : "lib" + name + ".so";
}

std::string LocateModule(const std::string& word, const std::vector<std::string>& directories) {
    if (word.find('/') != std::string::npos) return word;
    const std::string file = ModuleFileName(word);
    std::string searched;
    for (const std::string& directory : directories) {
        std::string candidate = directory;
        if (!EndsWith(candidate, "/")) candidate += '/';
        candidate += file;
        if (IsRegularFile(candidate)) return candidate;
        searched += (searched.empty() ? "" : ", ") + directory;
    }
    throw std::runtime_error("module " + word + " (" + file + ") not found; searched: " +
                             (searched.empty() ? "(nothing)" : searched));
}

std::string LocateModule(const std::string& word, const std::string& executable) {
    return LocateModule(word, ModuleDirectories(executable, std::getenv("OMBRIX_MODULE_PATH")));
}

}  // namespace OmbrixTool
