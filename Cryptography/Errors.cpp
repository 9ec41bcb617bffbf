#include "Errors.h"

#include <openssl/err.h>

#include <vector>

namespace Cryptography {

void Report(Ombrix::IContext* context, const char* errorId, const std::string& message) {
    if (context) context->TriggerErrorHandler(Ombrix::kSeverityError, kModuleName, errorId, message.c_str());
}

void ReportOpenSSLError(Ombrix::IContext* context, const char* text) {
    if (!context) return;
    const char* reason = nullptr;
    if (const unsigned long code = ERR_peek_last_error()) reason = ERR_reason_error_string(code);
    std::string message;
    if (text) {
        message = text;
        if (reason) message += ", ";
    }
    if (reason) message.append("failure reason:[").append(reason).append("]");
    Report(context, kFunctionError, message);
}

std::string OpenSSLErrorText(unsigned long code, size_t bufferSize) {
    std::vector<char> buffer(bufferSize, '\0');
    ERR_error_string_n(code, buffer.data(), buffer.size());
    return buffer.data();
}

}  // namespace Cryptography
