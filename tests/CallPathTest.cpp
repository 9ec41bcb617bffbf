// The per-call path: the OpenSSL error queue is empty after every entry point
// whatever was queued before or during the call.
#include <openssl/err.h>
#include <openssl/evp.h>

#include "Harness.h"

namespace Testing {
namespace {

class CallPath : public ModuleTest {};

TEST_F(CallPath, NoErrorQueueEntryEscapesAnEntryPoint) {
    struct Case {
        const char* what;
        const char* routine;
        bool staleBefore;  // an entry some earlier code left queued
        Args args;
        std::string hexResult;  // "" when the call reports an error
    };
    const Case cases[] = {
        {"success, clean queue", "Cryptography.Hash", false, {Str("SHA256"), Str("abc")},
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"success, stale entry", "Cryptography.Hash", true, {Str("SHA256"), Str("abc")},
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"report, clean queue", "Cryptography.Hash", false, {Str("NoSuchDigest"), Str("abc")}, ""},
        {"report, stale entry", "Cryptography.Hash", true, {Str("NoSuchDigest"), Str("abc")}, ""},
        // Decrypting bytes that are not a whole ciphertext fails inside OpenSSL.
        {"OpenSSL failure, clean queue", "Cryptography.DataRefDecrypt", false,
         {Str("AES-256-CBC"), Dat(std::string(17, 'x')), Str(std::string(32, 'k'))}, ""},
        {"OpenSSL failure, stale entry", "Cryptography.DataRefDecrypt", true,
         {Str("AES-256-CBC"), Dat(std::string(17, 'x')), Str(std::string(32, 'k'))}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ERR_clear_error();
        if (c.staleBefore) ERR_raise(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM);
        CallOutcome outcome = Call(c.routine, c.args);
        EXPECT_EQ(ERR_peek_error(), 0ul) << "an error queue entry escaped";
        if (!c.hexResult.empty()) {
            EXPECT_TRUE(outcome.ok());
            EXPECT_EQ(Hex(ResultBytes(outcome)), c.hexResult);
        } else {
            EXPECT_FALSE(outcome.errors.empty()) << "the failure is reported";
        }
    }
}

}  // namespace
}  // namespace Testing
