// The per-call path: the OpenSSL error queue is empty after every entry point
// whatever was queued before or during the call, and a call's context reports
// its routine frame under the frames pushed above it.
#include <openssl/err.h>
#include <openssl/evp.h>

#include <set>
#include <thread>

#include "Context.h"
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

TEST_F(CallPath, CallStackNamesTheRoutineUnderPushedFrames) {
    const auto* hash = engine_.FindEntry("ombrix_module_Hash");
    ASSERT_NE(hash, nullptr);
    struct Case {
        const Ombrix::Host::Declaration* routine;
        std::vector<std::string> pushed;  // in push order
        std::vector<std::string> frames;  // innermost first
    };
    const Case cases[] = {
        {hash, {}, {"Cryptography.Hash"}},
        {hash, {"Outer.A"}, {"Outer.A", "Cryptography.Hash"}},
        {hash, {"Outer.A", "Outer.B"}, {"Outer.B", "Outer.A", "Cryptography.Hash"}},
        {nullptr, {}, {}},
        {nullptr, {"Outer.A"}, {"Outer.A"}},
    };
    for (const Case& c : cases) {
        AutoRefPtr<Ombrix::Host::Context> context(new Ombrix::Host::Context(engine_, c.routine));
        for (const std::string& frame : c.pushed) context->PushFrame(frame);
        AutoRefPtr<Ombrix::ICallStack> stack = context->GetCallStack();
        ASSERT_TRUE(stack);
        std::vector<std::string> frames;
        for (uint32_t i = 0; i < stack->GetDepth(); ++i) frames.push_back(stack->GetFrame(i));
        EXPECT_EQ(frames, c.frames);
        EXPECT_EQ(context->GetRoutineName(), c.routine ? c.routine->name : "");
    }
}

// Ids are handed out per thread in blocks; across threads and past the end of
// a block they must stay distinct and non-zero.
TEST_F(CallPath, TransactionIdsAreUniqueAcrossThreads) {
    constexpr int kPerThread = 3000;  // more than one block per thread
    std::vector<uint64_t> ids[3];
    auto collect = [&](std::vector<uint64_t>& out) {
        for (int i = 0; i < kPerThread; ++i) {
            AutoRefPtr<Ombrix::Host::Context> context(new Ombrix::Host::Context(engine_, nullptr));
            out.push_back(context->GetTransactionId());
            EXPECT_EQ(context->GetUserDataId(), out.back());
        }
    };
    std::thread a(collect, std::ref(ids[0])), b(collect, std::ref(ids[1]));
    collect(ids[2]);
    a.join();
    b.join();
    std::set<uint64_t> distinct;
    for (const auto& list : ids) distinct.insert(list.begin(), list.end());
    EXPECT_EQ(distinct.size(), 3u * kPerThread);
    EXPECT_EQ(distinct.count(0), 0u);
}

}  // namespace
}  // namespace Testing
