// Engine: construction and module loading (dlopen, data exports, definition
// text, registration), host modules, and the parser of definition texts.
#include "Engine.h"

#include <dlfcn.h>

#include <csignal>

#include <cctype>

#include "EngineLoop.h"
#include "JsonModule.h"
#include "NetModule.h"

namespace Ombrix::Host {

namespace {

using DataExport = const char* (*)();
using RegisterFunction = uint32_t (*)(IModuleInfo*);
using DeregisterFunction = void (*)();

// Data exports a module offers; all but the definition are read once at load.
constexpr const char* kDataExports[] = {
    "GetOmbrixModuleName",
    "GetModuleVersion",
    "GetOmbrixSDKVersion",
    "GetModuleOmbrixVersion",
    "GetSDKDependency",
    "GetDownwardsCompatibility",
    "GetModuleDependencies",
    "GetModuleDependenciesOptional",
    "GetModuleDependenciesLoadBefore",
    "GetAlternativeFunctionDependencies",
    "GetAlternativeProcedureDependencies",
    "GetOptionalFunctionDependencies",
    "GetOptionalProcedureDependencies",
    "GetState",
    "GetSupportedPlatforms",
};

// Left-to-right scanner over a definition text.
class DefinitionScanner {
public:
    explicit DefinitionScanner(std::string_view text) : text_(text) {}

    bool AtEnd() {
        SkipBlanks();
        return pos_ >= text_.size();
    }
    // A word ends at a blank, or at "(" unless it is inside "<...>".
    std::string Word() {
        SkipBlanks();
        const size_t start = pos_;
        int depth = 0;
        while (pos_ < text_.size() && !std::isspace(static_cast<unsigned char>(text_[pos_]))) {
            const char c = text_[pos_];
            if (c == '<') ++depth;
            if (c == '>') --depth;
            if ((c == '(' || c == ':') && depth == 0) break;
            ++pos_;
        }
        if (pos_ == start) Fail("a word");
        return std::string(text_.substr(start, pos_ - start));
    }
    void Expect(char c) {
        SkipBlanks();
        if (pos_ >= text_.size() || text_[pos_] != c) Fail(std::string("'") + c + "'");
        ++pos_;
    }
    std::vector<std::string> Parameters() {
        Expect('(');
        const size_t close = text_.find(')', pos_);
        if (close == std::string_view::npos) Fail("')'");
        std::vector<std::string> parameters;
        std::string_view list = text_.substr(pos_, close - pos_);
        pos_ = close + 1;
        while (!list.empty()) {
            const size_t comma = list.find(',');
            std::string_view item = list.substr(0, comma);
            while (!item.empty() && std::isspace(static_cast<unsigned char>(item.front()))) item.remove_prefix(1);
            while (!item.empty() && std::isspace(static_cast<unsigned char>(item.back()))) item.remove_suffix(1);
            if (!item.empty()) parameters.emplace_back(item);
            if (comma == std::string_view::npos) break;
            list.remove_prefix(comma + 1);
        }
        return parameters;
    }
    [[noreturn]] void Fail(const std::string& expected) const {
        throw std::runtime_error("definition text: expected " + expected + " at offset " + std::to_string(pos_));
    }

private:
    void SkipBlanks() {
        while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    }

    std::string_view text_;
    size_t pos_ = 0;
};

}  // namespace

std::string Declaration::Text() const {
    std::string text;
    switch (kind) {
        case Kind::Function: text = "FUNCTION " + resultType + " " + name; break;
        case Kind::Procedure: text = "PROCEDURE " + name; break;
        case Kind::Type: return "TYPE " + name;
    }
    text += " (";
    for (size_t i = 0; i < parameters.size(); ++i) text += (i ? "," : "") + parameters[i];
    return text + ")";
}

std::vector<Declaration> ParseDefinition(std::string_view text) {
    std::vector<Declaration> declarations;
    DefinitionScanner scan(text);
    while (!scan.AtEnd()) {
        Declaration d;
        const std::string keyword = scan.Word();
        if (keyword == "FUNCTION") {
            d.kind = Declaration::Kind::Function;
            d.resultType = scan.Word();
        } else if (keyword == "PROCEDURE") {
            d.kind = Declaration::Kind::Procedure;
        } else if (keyword == "TYPE") {
            d.kind = Declaration::Kind::Type;
        } else {
            scan.Fail("FUNCTION, PROCEDURE or TYPE");
        }
        d.name = scan.Word();
        if (d.name.find('.') == std::string::npos) scan.Fail("a namespaced name");
        if (d.kind != Declaration::Kind::Type) d.parameters = scan.Parameters();
        scan.Expect(':');
        d.entryName = scan.Word();
        declarations.push_back(std::move(d));
    }
    return declarations;
}

Engine::Engine() : Engine(Options{}) {}

Engine::Engine(Options options)
    : options_(std::move(options)),
      configuration_(new Configuration),
      logger_(new Logger),
      policy_(new Policy("default", 1)),
      scheduler_(new EventScheduler) {
    // Scripts write to sockets (TLS sessions over their own connections); a
    // write to a peer that has gone must fail with EPIPE, not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    for (const auto& [key, value] : options_.configuration) configuration_->Set(key, value);
    logger_->SetVerbose(options_.verboseLog);
    options_.firstCustomBase = std::max(options_.firstCustomBase, static_cast<uint32_t>(kBaseFirstCustom));
    types_.emplace("JSON", MakeTypeCode(options_.firstCustomBase, Container::Single));
    if (options_.jsonModule) AddHostModule("JSON", JsonModuleRoutines());
    AddHostModule("Net", NetModuleRoutines());
}

Engine::~Engine() {
    // Modules are deregistered and unloaded in reverse order. A module the
    // process loaded elsewhere too stays mapped until its last handle goes.
    calls_.clear();  // parked calls release their per-call state while the modules are still registered
    overloads_.clear();
    declarations_.clear();
    typeDeclarations_.clear();
    for (auto it = modules_.rbegin(); it != modules_.rend(); ++it) {
        LoadedModule& module = **it;
        if (!module.handle) continue;
        if (module.registered) {
            if (auto deregister = reinterpret_cast<DeregisterFunction>(dlsym(module.handle, "DeregisterModule")))
                deregister();
        }
        dlclose(module.handle);
        module.handle = nullptr;
    }
}

void Engine::SetPolicy(const std::string& name, uint64_t identity) {
    policy_ = AutoRefPtr<IPolicy>(new Policy(name, identity));
}

const LoadedModule& Engine::Load(const std::string& path) {
    auto module = std::make_unique<LoadedModule>();
    module->path = path;
    module->handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module->handle) {
        const char* reason = dlerror();
        throw std::runtime_error("cannot load module " + path + ": " + (reason ? reason : "unknown reason"));
    }
    for (const char* name : kDataExports)
        if (auto get = reinterpret_cast<DataExport>(dlsym(module->handle, name))) module->exports[name] = get();
    module->name = module->exports["GetOmbrixModuleName"];
    if (module->name.empty()) throw std::runtime_error("module " + path + " does not name itself");

    auto definition = reinterpret_cast<DataExport>(dlsym(module->handle, "GetModuleDefinition"));
    if (!definition) throw std::runtime_error("module " + path + " has no GetModuleDefinition");
    module->definition = definition();

    auto registerModule = reinterpret_cast<RegisterFunction>(dlsym(module->handle, "RegisterModule"));
    if (!registerModule) throw std::runtime_error("module " + path + " has no RegisterModule");
    AutoRefPtr<ModuleInfo> info(new ModuleInfo(module->name, AutoRefPtr<IConfiguration>(configuration_),
                                               AutoRefPtr<ILogger>(logger_), policy_,
                                               AutoRefPtr<IEventScheduler>(scheduler_)));
    if (registerModule(info.get()) != 0) throw std::runtime_error("module " + path + " refused to register");
    module->registered = true;

    LoadedModule& loaded = *module;
    modules_.push_back(std::move(module));
    Bind(loaded, ParseDefinition(loaded.definition));
    return loaded;
}

void Engine::AddHostModule(const std::string& name, const std::vector<HostRoutine>& routines) {
    auto module = std::make_unique<LoadedModule>();
    module->name = name;
    std::vector<Declaration> declarations;
    for (const HostRoutine& routine : routines) {
        std::string text = routine.declaration + " : host";
        std::vector<Declaration> parsed = ParseDefinition(text);
        parsed.front().entry = routine.entry;
        declarations.push_back(std::move(parsed.front()));
    }
    LoadedModule& loaded = *module;
    modules_.push_back(std::move(module));
    Bind(loaded, std::move(declarations));
}

std::vector<std::string> Engine::Unresolved() const {
    std::vector<std::string> names;
    for (const auto& m : modules_) names.insert(names.end(), m->unresolved.begin(), m->unresolved.end());
    return names;
}

}  // namespace Ombrix::Host
