// Random bytes from RAND_bytes, raw and as hex, Base64, Base64URL and
// UUID-shaped text.
#include <openssl/rand.h>

#include <limits>
#include <string>

#include "Codec.h"
#include "Ombrix/Data.h"
#include "Routine.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::IContext;

constexpr char kNegativeLength[] = "Negative length parameter!";
constexpr char kRandomFailed[] = "CreateRandomBytes failed!";

// Callers have refused counts beyond RAND_bytes' int range (TooLarge).
bool FillRandom(char* bytes, uint64_t count) {
    return RAND_bytes(reinterpret_cast<unsigned char*>(bytes), static_cast<int>(count)) == 1;
}

// A count beyond RAND_bytes' int range is refused up front, as RAND_bytes
// refuses the negative count it would narrow to; no huge buffer is allocated
// and no partly filled one ever comes back.
bool TooLarge(int64_t n) { return n > std::numeric_limits<int>::max(); }

AutoRefPtr<Data> CreateRandomBytes(int64_t n, IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    if (n < 0) {
        Report(context, kInvalidArgument, kNegativeLength);
        return result;
    }
    if (n == 0) return result;
    if (TooLarge(n)) {
        Report(context, kFunctionError, kRandomFailed);
        return result;
    }
    // Written in place; a failed fill leaves the result empty again.
    const auto count = static_cast<uint64_t>(n);
    if (!FillRandom(result->PrepareForWriting(count), count)) {
        result->Assign(nullptr, 0);
        Report(context, kFunctionError, kRandomFailed);
        return result;
    }
    return result;
}

// n hexadecimal characters: the hex text of random bytes cut to n characters,
// so only n/2 bytes of entropy. Scripts rely on the length being n.
std::string CreateRandomBytesAsString(int64_t n, IContext* context) {
    if (n == 0) return {};
    if (n < 0) {
        Report(context, kInvalidArgument, kNegativeLength);
        return {};
    }
    // Characters past the first n are cut anyway, so (n + 1) / 2 bytes give
    // the same text as n.
    if (TooLarge(n)) {
        Report(context, kFunctionError, kRandomFailed);
        return {};
    }
    std::string bytes(static_cast<size_t>((n + 1) / 2), '\0');
    if (!FillRandom(bytes.data(), bytes.size())) {
        Report(context, kFunctionError, kRandomFailed);
        return {};
    }
    std::string text = Codec::HexEncode(bytes.data(), bytes.size());
    text.resize(static_cast<size_t>(n));
    return text;
}

template <class Encoder>
std::string RandomText(int64_t n, IContext* context, Encoder&& encode) {
    if (n == 0) return {};
    if (n < 0) {
        Report(context, kInvalidArgument, kNegativeLength);
        return {};
    }
    AutoRefPtr<Data> bytes = CreateRandomBytes(n, context);
    if (context && context->HasError()) return {};
    return encode(bytes->View());
}

std::string CreateRandomBytesAsBase64String(int64_t n, IContext* context) {
    return RandomText(n, context, [](std::string_view b) { return Codec::Base64Encode(b.data(), b.size()); });
}

std::string CreateRandomBytesAsBase64URLString(int64_t n, IContext* context) {
    return RandomText(n, context, [](std::string_view b) { return Codec::Base64URLEncode(b); });
}

// 32 random hex digits laid out as 8-4-4-4-12 with the version digit forced
// to 4 (replacing digit 15); the variant digit stays random.
std::string CreateRandomUUID(IContext* context) {
    const std::string h = CreateRandomBytesAsString(32, context);
    if (h.empty()) return {};
    std::string uuid;
    uuid.reserve(36);
    uuid.append(h, 0, 8).append("-").append(h, 8, 4).append("-4").append(h, 12, 3);
    uuid.append("-").append(h, 16, 4).append("-").append(h, 20, 12);
    return uuid;
}

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(CreateRandomBytes, &Cryptography::CreateRandomBytes)
CRYPTOGRAPHY_ROUTINE(CreateRandomBytesAsString, &Cryptography::CreateRandomBytesAsString)
CRYPTOGRAPHY_ROUTINE(CreateRandomBytesAsBase64String, &Cryptography::CreateRandomBytesAsBase64String)
CRYPTOGRAPHY_ROUTINE(CreateRandomBytesAsBase64URLString, &Cryptography::CreateRandomBytesAsBase64URLString)
CRYPTOGRAPHY_ROUTINE(CreateRandomBytesAsUUID, &Cryptography::CreateRandomUUID)
