#include "Engine.h"

#include <dlfcn.h>

#include <csignal>

#include <algorithm>
#include <cctype>

#include "Context.h"
#include "JsonModule.h"
#include "NetModule.h"
#include "Ombrix/Json.h"

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

std::string_view VectorElement(std::string_view name) {
    constexpr std::string_view prefix = "VECTOR<";
    if (name.size() > prefix.size() + 1 && name.substr(0, prefix.size()) == prefix && name.back() == '>')
        return name.substr(prefix.size(), name.size() - prefix.size() - 1);
    return {};
}

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

uint32_t Engine::DeclareType(const std::string& name) {
    auto it = types_.find(name);
    if (it != types_.end()) return it->second;
    const uint32_t base = options_.firstCustomBase + static_cast<uint32_t>(types_.size());
    const uint32_t code = MakeTypeCode(base, Container::Single);
    types_.emplace(name, code);
    return code;
}

uint32_t Engine::FindType(std::string_view name) const {
    if (name == "BOOLEAN") return kTypeBoolean;
    if (name == "NUMBER") return kTypeNumber;
    if (name == "STRING") return kTypeString;
    if (name == "DATAREF") return kTypeDataRef;
    if (name == "STREAM") return kTypeStream;
    if (std::string_view element = VectorElement(name); !element.empty()) {
        const uint32_t code = FindType(element);
        if (!code || ContainerOf(code) != Container::Single) return 0;
        return MakeTypeCode(BaseOf(code), Container::Vector);
    }
    auto it = types_.find(name);
    return it == types_.end() ? 0 : it->second;
}

bool Engine::KnowsType(uint32_t code) const {
    if (BaseOf(code) < kBaseFirstCustom) return true;
    const uint32_t single = MakeTypeCode(BaseOf(code), Container::Single);
    return std::any_of(types_.begin(), types_.end(), [&](const auto& type) { return type.second == single; });
}

std::string Engine::TypeName(uint32_t code) const {
    const uint32_t single = MakeTypeCode(BaseOf(code), Container::Single);
    std::string name;
    for (const auto& [typeName, typeCode] : types_)
        if (typeCode == single) name = typeName;
    if (name.empty()) return BuiltinTypeName(code);
    if (ContainerOf(code) == Container::Vector) return "VECTOR<" + name + ">";
    return ContainerOf(code) == Container::Single ? name : std::string();
}

AutoRefPtr<Variant> Engine::CreateInstance(uint32_t code) const {
    AutoRefPtr<Variant> value(new Variant(code));
    if (ContainerOf(code) == Container::Vector)
        value->AssignVector(AutoRefPtr<IVectorGeneric>(new Vector(MakeTypeCode(BaseOf(code), Container::Single))));
    return value;
}

AutoRefPtr<IUserDefinedType> Engine::NewValue(std::string_view typeName) {
    const uint32_t code = FindType(typeName);
    auto it = typeDeclarations_.find(code);
    if (it == typeDeclarations_.end() || !it->second->factory) return nullptr;
    AutoRefPtr<Context> context(new Context(*this, it->second));
    return AutoRefPtr<IUserDefinedType>(it->second->factory(code, context.get()));
}

AutoRefPtr<IUserDefinedType> Engine::Deserialize(std::string_view typeName, std::string_view jsonText) {
    AutoRefPtr<JSON::JSONWrapper> json = JSON::JSONWrapper::Parse(jsonText);
    if (!json) return nullptr;
    json->SetTypeId(FindType("JSON"));
    if (typeName == "JSON") return AutoRefPtr<IUserDefinedType>(std::move(json));
    AutoRefPtr<IUserDefinedType> value = NewValue(typeName);
    if (!value) return nullptr;
    AutoRefPtr<Context> context(new Context(*this, nullptr));
    return value->Deserialize(json.get(), context.get()) ? value : nullptr;
}

void Engine::Bind(LoadedModule& module, std::vector<Declaration> declarations) {
    // Types first, so that routines declared before a TYPE line still see its code.
    for (Declaration& d : declarations)
        if (d.kind == Declaration::Kind::Type) d.resultCode = DeclareType(d.name);
    for (Declaration& d : declarations) {
        d.module = module.name;
        if (d.kind == Declaration::Kind::Function) d.resultCode = FindType(d.resultType);
        for (const std::string& p : d.parameters) d.parameterCodes.push_back(FindType(p));
        if (module.handle) {
            void* symbol = dlsym(module.handle, d.entryName.c_str());
            if (d.kind == Declaration::Kind::Type)
                d.factory = reinterpret_cast<TypeFactory>(symbol);
            else
                d.entry = reinterpret_cast<RoutineEntry>(symbol);
            if (!symbol) module.unresolved.push_back(d.entryName);
        }
        auto owned = std::make_unique<Declaration>(std::move(d));
        if (owned->kind == Declaration::Kind::Type)
            typeDeclarations_[owned->resultCode] = owned.get();
        else
            overloads_[owned->name].push_back(owned.get());
        declarations_.push_back(std::move(owned));
    }
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

const std::vector<const Declaration*>& Engine::Overloads(std::string_view name) const {
    static const std::vector<const Declaration*> none;
    auto it = overloads_.find(name);
    return it == overloads_.end() ? none : it->second;
}

std::vector<std::string> Engine::Namespaces() const {
    std::vector<std::string> names;
    for (const auto& d : declarations_) {
        std::string ns = d->Namespace();
        if (std::find(names.begin(), names.end(), ns) == names.end()) names.push_back(std::move(ns));
    }
    return names;
}

std::vector<std::string> Engine::RoutineNames(std::string_view ns) const {
    std::vector<std::string> names;
    for (const auto& d : declarations_) {
        if (d->kind == Declaration::Kind::Type || d->Namespace() != ns) continue;
        if (std::find(names.begin(), names.end(), d->ShortName()) == names.end()) names.push_back(d->ShortName());
    }
    return names;
}

const Declaration* Engine::Choose(std::string_view name, const std::vector<AutoRefPtr<IVariant>>& arguments) const {
    const std::vector<const Declaration*>& overloads = Overloads(name);
    if (overloads.empty()) return nullptr;
    // Surplus arguments are ignored by a routine, so an overload fits when its
    // declared parameters match the leading arguments by type. The longest fit
    // wins; among equally long ones, the first declared.
    const Declaration* best = nullptr;
    for (const Declaration* d : overloads) {
        const size_t count = d->parameterCodes.size();
        if (count > arguments.size() || (best && count <= best->parameterCodes.size())) continue;
        bool match = true;
        for (size_t i = 0; i < count && match; ++i)
            match = arguments[i] && arguments[i]->GetType() == d->parameterCodes[i];
        if (match) best = d;
    }
    if (best) return best;
    // Nothing fits: the candidate whose argument status the caller gets.
    for (const Declaration* d : overloads)
        if (d->parameterCodes.size() == arguments.size()) return d;
    return overloads.front();
}

const Declaration* Engine::FindEntry(std::string_view entryName) const {
    for (const auto& d : declarations_)
        if (d->entryName == entryName && d->kind != Declaration::Kind::Type) return d.get();
    return nullptr;
}

const Declaration* Engine::FindRoutine(std::string_view name, const std::vector<std::string>& signature,
                                       bool procedure) const {
    for (const Declaration* d : Overloads(name)) {
        if ((d->kind == Declaration::Kind::Procedure) != procedure || !d->entry) continue;
        std::vector<std::string> types;
        if (!procedure) types.push_back(d->resultType);
        types.insert(types.end(), d->parameters.begin(), d->parameters.end());
        if (types == signature) return d;
    }
    return nullptr;
}

CallOutcome Engine::Call(std::string_view name, std::vector<AutoRefPtr<IVariant>> arguments) {
    const Declaration* declaration = Choose(name, arguments);
    if (!declaration) throw std::invalid_argument("unknown routine " + std::string(name));
    return CallDeclaration(*declaration, std::move(arguments));
}

CallOutcome Engine::CallEntry(std::string_view entryName, std::vector<AutoRefPtr<IVariant>> arguments) {
    const Declaration* declaration = FindEntry(entryName);
    if (!declaration) throw std::invalid_argument("unknown entry point " + std::string(entryName));
    return CallDeclaration(*declaration, std::move(arguments));
}

CallOutcome Engine::CallDeclaration(const Declaration& declaration, std::vector<AutoRefPtr<IVariant>> arguments,
                                    bool withResult) {
    CallOutcome outcome;
    outcome.declaration = &declaration;
    if (!declaration.entry) throw std::invalid_argument("entry point " + declaration.entryName + " is not bound");
    if (withResult) outcome.result = CreateInstance(declaration.resultCode);

    std::vector<IVariant*> raw;
    raw.reserve(arguments.size());
    for (const auto& a : arguments) raw.push_back(a.get());

    AutoRefPtr<Context> context(new Context(*this, &declaration));
    for (;;) {
        outcome.status = declaration.entry(static_cast<uint32_t>(raw.size()), raw.data(), outcome.result.get(), this,
                                           context.get());
        AutoRefPtr<IEvent> event = context->TakeEvent();
        if (!context->IsInterrupted() || !event || outcome.resumptions >= options_.maxResumptions) break;
        // Suspended on a descriptor: wait for it (or its timeout), then run the same call again.
        if (auto* fdEvent = dynamic_cast<FDEvent*>(event.get())) fdEvent->Wait();
        context->ClearInterrupted();
        context->SetResuming(true);
        ++outcome.resumptions;
    }
    outcome.errors = context->Errors();
    context->ClearUserData(nullptr);
    return outcome;
}

}  // namespace Ombrix::Host
