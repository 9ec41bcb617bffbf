#include "JsonModule.h"

#include "Ombrix/Json.h"
#include "Ombrix/Routine.h"

namespace Ombrix::Host {

namespace {

constexpr char kJsonNamespace[] = "JSON";

using JSON::JSONWrapper;

void Fail(IContext* context, const char* message) {
    if (context) context->TriggerErrorHandler(kSeverityError, kJsonNamespace, "Error.Ombrix.InvalidArgument", message);
}

// A new value carries the engine's code for JSON.
AutoRefPtr<IJSON> Stamped(AutoRefPtr<JSONWrapper> json, IContext* context) {
    if (json && context) json->SetTypeId(context->FindType("JSON"));
    return AutoRefPtr<IJSON>(std::move(json));
}

AutoRefPtr<IJSON> FromString(std::string text, IContext* context) {
    AutoRefPtr<JSONWrapper> json = JSONWrapper::Parse(text);
    if (!json) {
        Fail(context, "Invalid JSON text");
        return nullptr;
    }
    return Stamped(std::move(json), context);
}

// Set works in place on the object and returns it.
template <class Setter>
AutoRefPtr<IJSON> SetWith(AutoRefPtr<IJSON> object, const std::string& key, IContext* context, Setter&& set) {
    if (!object->IsObject()) {
        Fail(context, "JSON.Set needs an object");
        return nullptr;
    }
    if (!set(*object, key.c_str())) {
        Fail(context, "JSON.Set failed");
        return nullptr;
    }
    return object;
}

AutoRefPtr<IJSON> SetJson(AutoRefPtr<IJSON> object, std::string key, AutoRefPtr<IJSON> value, IContext* context) {
    return SetWith(std::move(object), key, context, [&](IJSON& o, const char* k) { return o.SetMember(k, value.get()); });
}

AutoRefPtr<IJSON> SetString(AutoRefPtr<IJSON> object, std::string key, std::string value, IContext* context) {
    return SetWith(std::move(object), key, context,
                   [&](IJSON& o, const char* k) { return o.SetMemberString(k, value.data(), value.size()); });
}

AutoRefPtr<IJSON> SetNumber(AutoRefPtr<IJSON> object, std::string key, double value, IContext* context) {
    return SetWith(std::move(object), key, context, [&](IJSON& o, const char* k) {
        // Whole non-negative numbers stay integers in the text.
        if (value >= 0 && value < 18446744073709551616.0 && value == static_cast<double>(static_cast<uint64_t>(value)))
            return o.SetMemberUInt64(k, static_cast<uint64_t>(value));
        return o.SetMemberNumber(k, value);
    });
}

AutoRefPtr<IJSON> CreateEmptyArray(IContext* context) { return Stamped(JSONWrapper::Make(JSON::Document::array()), context); }

AutoRefPtr<IJSON> ArrayAppend(AutoRefPtr<IJSON> array, AutoRefPtr<IJSON> value, IContext* context) {
    if (!array->Append(value.get())) {
        Fail(context, "JSON.ArrayAppend needs an array");
        return nullptr;
    }
    return array;
}

std::string ToString(AutoRefPtr<IJSON> json) { return json->ToJSONText(); }

template <auto Impl>
uint32_t Entry(uint32_t count, IVariant** arguments, IVariant* result, void* opaque, IContext* context) {
    return Invoke<Impl, kJsonNamespace>(count, arguments, result, opaque, context);
}

}  // namespace

std::vector<HostRoutine> JsonModuleRoutines() {
    return {
        {"FUNCTION JSON JSON.FromString (STRING)", &Entry<&FromString>},
        {"FUNCTION JSON JSON.Set (JSON,STRING,JSON)", &Entry<&SetJson>},
        {"FUNCTION JSON JSON.Set (JSON,STRING,STRING)", &Entry<&SetString>},
        {"FUNCTION JSON JSON.Set (JSON,STRING,NUMBER)", &Entry<&SetNumber>},
        {"FUNCTION JSON JSON.CreateEmptyArray ()", &Entry<&CreateEmptyArray>},
        {"FUNCTION JSON JSON.ArrayAppend (JSON,JSON)", &Entry<&ArrayAppend>},
        {"FUNCTION STRING JSON.ToString (JSON)", &Entry<&ToString>},
    };
}

}  // namespace Ombrix::Host
