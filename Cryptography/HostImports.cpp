#include "HostImports.h"

#include <atomic>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "Ombrix/Routine.h"
#include "Ombrix/TypeCodes.h"

namespace Cryptography::HostImports {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IContext;
using Ombrix::IVariant;

// Imports report under the host's namespace, not the module's.
constexpr char kHostNamespace[] = "Ombrix";
constexpr int32_t kLookupFlag = 1;

uint64_t PolicyIdentity(IContext* context) {
    if (!context) return 0;
    AutoRefPtr<Ombrix::IPolicy> policy = context->GetPolicy();
    return policy ? policy->GetIdentity() : 0;
}

// The host's code for JSON values: hosts hand out custom type codes at run
// time, so it is looked up once per process like the module's own type ids.
uint32_t JsonTypeId(IContext* context) {
    static const uint32_t id = context ? context->FindType("JSON") : 0;
    return id;
}

// One argument of an import call, turned into a host value only once the
// call is known to go ahead.
struct Argument {
    enum class Kind { Json, String, Number } kind;
    Ombrix::IJSON* json = nullptr;
    std::string_view text;
    double number = 0;

    static Argument Json(const JsonRef& value) { return {Kind::Json, value.get(), {}, 0}; }
    static Argument String(std::string_view value) { return {Kind::String, nullptr, value, 0}; }
    static Argument Number(double value) { return {Kind::Number, nullptr, {}, value}; }

    AutoRefPtr<IVariant> MakeValue(IContext* context) const {
        switch (kind) {
            case Kind::Json: {
                AutoRefPtr<IVariant> value = context->CreateInstance(JsonTypeId(context));
                if (value) value->SetUserDefined(AutoRefPtr<Ombrix::IUserDefinedType>::Share(json));
                return value;
            }
            case Kind::String: {
                AutoRefPtr<IVariant> value = context->CreateInstance(Ombrix::kTypeString);
                if (value) value->AssignString(text.data(), text.size());
                return value;
            }
            case Kind::Number: {
                AutoRefPtr<IVariant> value = context->CreateInstance(Ombrix::kTypeNumber);
                if (value) value->AssignNumber(number);
                return value;
            }
        }
        return nullptr;
    }
};

// A routine of another host module, resolved for one policy at a time.
class Import {
public:
    // signature: result type, parameter types, then an empty terminator.
    // Nothing is resolved yet: the first use looks the routine up.
    template <size_t N>
    Import(const char* name, const char* knownAs, const char* const (&signature)[N])
        : name_(name), knownAs_(knownAs), signature_(signature), count_(N) {}

    // One lookup at most per use: only when the cache holds no entry point
    // resolved for the context's policy.
    JsonRef Call(IContext* context, std::initializer_list<Argument> arguments) {
        if (!context) return nullptr;
        std::shared_ptr<const Resolution> resolved = cache_.load();
        const uint64_t identity = PolicyIdentity(context);
        if (!resolved || !resolved->entry || resolved->policyIdentity != identity) {
            resolved = Resolve(context, identity);
            cache_.store(resolved);
        }
        if (!resolved->entry) {
            const std::string message = std::string("Imported Ombrix function ") + name_ + " (imported as " +
                                        knownAs_ + ") doesn't exist!";
            context->TriggerErrorHandler(Ombrix::kSeverityError, kHostNamespace, "Error.Ombrix.InvalidFunction",
                                         message.c_str());
            return nullptr;
        }
        if (context->HasError()) {
            context->DebugLog(kHostNamespace, 0,
                              std::string("Error calling imported Ombrix function ") + name_ + " (imported as " +
                                  knownAs_ + "),context has error \"" + context->GetErrorMessage() +
                                  "\", backtrace: " + context->PrintCallStack());
            return nullptr;
        }
        if (context->IsInterrupted()) {
            context->DebugLog(kHostNamespace, 0,
                              std::string("Error calling imported Ombrix function ") + name_ + " (imported as " +
                                  knownAs_ + "), context is already interrupted, backtrace: " +
                                  context->PrintCallStack());
            return nullptr;
        }

        std::vector<AutoRefPtr<IVariant>> values;
        std::vector<IVariant*> raw;
        values.reserve(arguments.size());
        raw.reserve(arguments.size());
        for (const Argument& argument : arguments) {
            values.push_back(argument.MakeValue(context));
            if (!values.back()) return nullptr;
            raw.push_back(values.back().get());
        }
        AutoRefPtr<IVariant> result = context->CreateInstance(JsonTypeId(context));
        if (!result) return nullptr;

        const uint32_t status =
            resolved->entry(static_cast<uint32_t>(raw.size()), raw.data(), result.get(), resolved->opaque, context);
        if (status != 0) {
            const uint32_t kind = Ombrix::StatusKindOf(status);
            const std::string position = std::to_string(Ombrix::StatusPosition(status));
            std::string message;
            if (kind == 2)
                message = "invalid parameter " + position + " in ";
            else if (kind == 4)
                message = "invalid object used for parameter " + position + " in ";
            else
                message = "runtime error from ";
            message += std::string("function '") + name_ + "'";
            context->TriggerErrorHandler(Ombrix::kSeverityError, kHostNamespace, "Error.Ombrix.InvalidArgument",
                                         message.c_str());
            return nullptr;
        }
        AutoRefPtr<Ombrix::IUserDefinedType> held(result->GetUserDefinedPtr());
        return held.DynamicCast<Ombrix::IJSON>();
    }

private:
    struct Resolution {
        Ombrix::RoutineEntry entry = nullptr;
        void* opaque = nullptr;
        uint64_t policyIdentity = 0;
    };

    std::shared_ptr<const Resolution> Resolve(IContext* context, uint64_t identity) const {
        auto resolution = std::make_shared<Resolution>();
        resolution->policyIdentity = identity;
        if (context) {
            AutoRefPtr<Ombrix::IModuleInfo> provider;
            resolution->entry = context->GetFunction(name_, count_, signature_, &provider, &resolution->opaque,
                                                     kLookupFlag);
        }
        return resolution;
    }

    const char* name_;
    const char* knownAs_;
    const char* const* signature_;
    uint32_t count_;
    std::atomic<std::shared_ptr<const Resolution>> cache_;
};

constexpr const char* kSetJsonSignature[] = {"JSON", "JSON", "STRING", "JSON", ""};
constexpr const char* kSetStringSignature[] = {"JSON", "JSON", "STRING", "STRING", ""};
constexpr const char* kSetNumberSignature[] = {"JSON", "JSON", "STRING", "NUMBER", ""};
constexpr const char* kCreateEmptyArraySignature[] = {"JSON", ""};
constexpr const char* kArrayAppendSignature[] = {"JSON", "JSON", "JSON", ""};
constexpr const char* kFromStringSignature[] = {"JSON", "STRING", ""};

}  // namespace

JsonRef JSONSetJson(IContext* context, const JsonRef& object, std::string_view key, const JsonRef& value) {
    static Import import("JSON.Set", "JSONSetJson", kSetJsonSignature);
    return import.Call(context, {Argument::Json(object), Argument::String(key), Argument::Json(value)});
}

JsonRef JSONSetString(IContext* context, const JsonRef& object, std::string_view key, std::string_view value) {
    static Import import("JSON.Set", "JSONSetString", kSetStringSignature);
    return import.Call(context, {Argument::Json(object), Argument::String(key), Argument::String(value)});
}

JsonRef JSONSetUInt64(IContext* context, const JsonRef& object, std::string_view key, uint64_t value) {
    static Import import("JSON.Set", "JSONSetUInt64", kSetNumberSignature);
    return import.Call(context,
                       {Argument::Json(object), Argument::String(key), Argument::Number(static_cast<double>(value))});
}

JsonRef JSONCreateEmptyArray(IContext* context) {
    static Import import("JSON.CreateEmptyArray", "JSONCreateEmptyArray", kCreateEmptyArraySignature);
    return import.Call(context, {});
}

JsonRef JSONArrayAppendJSON(IContext* context, const JsonRef& array, const JsonRef& value) {
    static Import import("JSON.ArrayAppend", "JSONArrayAppendJSON", kArrayAppendSignature);
    return import.Call(context, {Argument::Json(array), Argument::Json(value)});
}

JsonRef StringToJson(IContext* context, std::string_view text) {
    static Import import("JSON.FromString", "StringToJson", kFromStringSignature);
    return import.Call(context, {Argument::String(text)});
}

}  // namespace Cryptography::HostImports
