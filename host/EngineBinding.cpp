// Engine: types, binding of declarations to entry points and factories, and
// the lookups over them (overloads by name, overload choice, routines by
// signature for imports).
#include <dlfcn.h>

#include <algorithm>

#include "Context.h"
#include "Engine.h"
#include "Ombrix/Json.h"

namespace Ombrix::Host {

namespace {

std::string_view VectorElement(std::string_view name) {
    constexpr std::string_view prefix = "VECTOR<";
    if (name.size() > prefix.size() + 1 && name.substr(0, prefix.size()) == prefix && name.back() == '>')
        return name.substr(prefix.size(), name.size() - prefix.size() - 1);
    return {};
}

}  // namespace

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
    return ChooseAmong(Overloads(name), ArgumentPointers(arguments).Span());
}

Engine::Fit Engine::ExactFit(const IVariant* argument, uint32_t parameterCode) {
    return argument && argument->GetType() == parameterCode ? Fit::Exact : Fit::None;
}

namespace {

// How one overload stands to the arguments: how many leading arguments fit
// its parameters, how many of those only through a conversion, and whether
// every parameter is covered.
struct Standing {
    size_t leading = 0;
    size_t converted = 0;
    bool whole = false;
};

Standing Measure(const Declaration& d, std::span<IVariant* const> arguments, Engine::FitRule fit) {
    Standing s;
    const size_t count = std::min(d.parameterCodes.size(), arguments.size());
    for (; s.leading < count; ++s.leading) {
        const Engine::Fit f = fit(arguments[s.leading], d.parameterCodes[s.leading]);
        if (f == Engine::Fit::None) break;
        if (f == Engine::Fit::Converted) ++s.converted;
    }
    s.whole = s.leading == d.parameterCodes.size();
    return s;
}

}  // namespace

const Declaration* Engine::ChooseAmong(const std::vector<const Declaration*>& overloads,
                                       std::span<IVariant* const> arguments, FitRule fit) {
    if (overloads.empty()) return nullptr;
    // Overloads with as many parameters as there are arguments come first: a
    // shorter one would silently drop the arguments it does not take. Only
    // when no overload takes that many do surplus arguments stay unread.
    const bool exactCount = std::any_of(overloads.begin(), overloads.end(), [&](const Declaration* d) {
        return d->parameterCodes.size() == arguments.size();
    });
    // The fitting overload: the longest (only one length with exactCount),
    // then the one with fewest conversions, then the first declared.
    const Declaration* best = nullptr;
    Standing bestStanding;
    for (const Declaration* d : overloads) {
        if (exactCount != (d->parameterCodes.size() == arguments.size())) continue;
        const Standing s = Measure(*d, arguments, fit);
        if (!s.whole) continue;
        if (!best || d->parameterCodes.size() > best->parameterCodes.size() ||
            (d->parameterCodes.size() == best->parameterCodes.size() && s.converted < bestStanding.converted)) {
            best = d;
            bestStanding = s;
        }
    }
    if (best) return best;
    // Nothing fits: the candidate that fits the most leading arguments runs,
    // so its argument status names the position that is wrong.
    for (const Declaration* d : overloads) {
        if (exactCount && d->parameterCodes.size() != arguments.size()) continue;
        const Standing s = Measure(*d, arguments, fit);
        if (!best || s.leading > bestStanding.leading) {
            best = d;
            bestStanding = s;
        }
    }
    return best;
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

}  // namespace Ombrix::Host
