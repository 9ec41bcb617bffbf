// Routines of the host's JSON module that the module calls through the
// context. Each is resolved by name and signature, cached per policy identity,
// and checked; failures are reported on the context (source "Ombrix") and give
// a null result.
#pragma once

#include <cstdint>
#include <string_view>

#include "Ombrix/Interfaces.h"

namespace Cryptography::HostImports {

using JsonRef = Ombrix::AutoRefPtr<Ombrix::IJSON>;

// JSON.Set (JSON, STRING, JSON): object[key] = value; returns the object.
JsonRef JSONSetJson(Ombrix::IContext* context, const JsonRef& object, std::string_view key, const JsonRef& value);
// JSON.Set (JSON, STRING, STRING)
JsonRef JSONSetString(Ombrix::IContext* context, const JsonRef& object, std::string_view key, std::string_view value);
// JSON.Set (JSON, STRING, NUMBER)
JsonRef JSONSetUInt64(Ombrix::IContext* context, const JsonRef& object, std::string_view key, uint64_t value);
// JSON.CreateEmptyArray ()
JsonRef JSONCreateEmptyArray(Ombrix::IContext* context);
// JSON.ArrayAppend (JSON, JSON): appends value; returns the array.
JsonRef JSONArrayAppendJSON(Ombrix::IContext* context, const JsonRef& array, const JsonRef& value);
// JSON.FromString (STRING)
JsonRef StringToJson(Ombrix::IContext* context, std::string_view text);

}  // namespace Cryptography::HostImports
