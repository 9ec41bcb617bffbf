// The per-call path: the OpenSSL error queue is empty after every entry point
// whatever was queued before or during the call.
#include <openssl/err.h>
#include <openssl/evp.h>

#include "Harness.h"

namespace Testing {
namespace {

class CallPath : public ModuleTest {};

// With a clean queue and with an entry some earlier code left queued.
TEST_F(CallPath, NoErrorQueueEntryEscapesAnEntryPoint) {
    const struct { const char* routine; Args args; std::string hexResult; } cases[] = {  // "": a reported failure
        {"Cryptography.Hash", {Str("SHA256"), Str("abc")}, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"Cryptography.Hash", {Str("NoSuchDigest"), Str("abc")}, ""},
        // Decrypting bytes that are not a whole ciphertext fails inside OpenSSL.
        {"Cryptography.DataRefDecrypt", {Str("AES-256-CBC"), Dat(std::string(17, 'x')), Str(std::string(32, 'k'))}, ""},
    };
    for (const auto& c : cases) {
        for (const bool stale : {false, true}) {
            SCOPED_TRACE(std::string(c.routine) + (stale ? ", stale entry" : ", clean queue"));
            ERR_clear_error();
            if (stale) ERR_raise(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM);
            const CallOutcome outcome = Call(c.routine, c.args);
            EXPECT_EQ(ERR_peek_error(), 0ul) << "an error queue entry escaped";
            EXPECT_EQ(Hex(ResultBytes(outcome)), c.hexResult);
            EXPECT_EQ(outcome.errors.empty(), !c.hexResult.empty()) << "a failure is reported";
        }
    }
}

}  // namespace
}  // namespace Testing
