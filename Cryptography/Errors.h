// How routines report failures on the host context.
#pragma once

#include <string>

#include "Ombrix/Interfaces.h"

namespace Cryptography {

inline constexpr char kModuleName[] = "Cryptography";

inline constexpr const char* kInvalidArgument = "Error.Ombrix.InvalidArgument";
inline constexpr const char* kFunctionError = "Error.Ombrix.FunctionError";
inline constexpr const char* kInvalidFunction = "Error.Ombrix.InvalidFunction";
inline constexpr const char* kSystemMemory = "Error.System.Memory";

// Reports an error of this module (severity 2, source "Cryptography").
void Report(Ombrix::IContext* context, const char* errorId, const std::string& message);

// Reports text + ", failure reason:[<reason>]" under FunctionError, with the
// reason of the newest queued OpenSSL error (the queue is left as it is).
void ReportOpenSSLError(Ombrix::IContext* context, const char* text);

// The text of an OpenSSL error code as ERR_error_string_n writes it into a
// buffer of the given size.
std::string OpenSSLErrorText(unsigned long code, size_t bufferSize);

}  // namespace Cryptography
