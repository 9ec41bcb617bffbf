// Any routine of the module, through the engine: each input is a short
// sequence of calls, each naming a declaration (overloads included) and
// building its arguments from the input: declared types, wrong types, missing
// and surplus arguments, values made by earlier calls of the same input.
// Parameters whose legitimate values take minutes (RSA bits, PBKDF2 and
// BytesToKey rounds, random lengths, read sizes) are capped here; sockets
// are a socket pair whose far end holds input bytes; file names are fixtures.
// X509FetchFromServer, which connects out, is left to the tls_peer target.
#include <fcntl.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "FuzzSupport.h"
#include "Ombrix/Routine.h"
#include "RoutineArguments.h"

namespace {

using namespace Fuzz;
using Ombrix::Host::Declaration;

constexpr size_t kMaxCalls = 6;

// Every routine declaration of the module but the outbound fetch.
const std::vector<const Declaration*>& Routines() {
    static const std::vector<const Declaration*> list = [] {
        std::vector<const Declaration*> routines;
        Engine& engine = ModuleEngine();
        for (const std::string& name : engine.RoutineNames("Cryptography"))
            for (const Declaration* d : engine.Overloads("Cryptography." + name))
                if (d->name != "Cryptography.X509FetchFromServer") routines.push_back(d);
        if (routines.size() != 84) Fail("expected 84 routine declarations, found " + std::to_string(routines.size()));
        return routines;
    }();
    return list;
}

// A socket pair for Connect: the module's end is non-blocking; the far end
// was written with input bytes and shut for writing, so reads end.
class SocketPair {
public:
    ~SocketPair() {
        for (int fd : fds_)
            if (fd >= 0) close(fd);
    }
    int Near(FuzzedDataProvider& input) {
        if (fds_[0] >= 0) return fds_[0];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) Fail("socketpair failed");
        fcntl(fds_[0], F_SETFL, fcntl(fds_[0], F_GETFL) | O_NONBLOCK);
        const std::string peer = input.ConsumeRandomLengthString(4096);
        if (!peer.empty() && write(fds_[1], peer.data(), peer.size()) < 0) Fail("socketpair write failed");
        shutdown(fds_[1], SHUT_WR);
        return fds_[0];
    }

private:
    int fds_[2] = {-1, -1};
};

// The number with its 32- and 64-bit truncations held to at most limit.
AutoRefPtr<IVariant> AtMost(const AutoRefPtr<IVariant>& number, int64_t limit) {
    const double value = number->GetNumber();
    if (Ombrix::TruncateToInt64(value) > limit || Ombrix::TruncateToInt32(value) > limit)
        return Num(static_cast<double>(limit));
    return number;
}

// Caps and redirections for arguments of the declared type.
void Restrain(const Declaration& d, Args& args, FuzzedDataProvider& input, SocketPair& sockets) {
    auto numberAt = [&](size_t i) { return i < args.size() && args[i]->GetType() == Ombrix::kTypeNumber; };
    auto stringAt = [&](size_t i) { return i < args.size() && args[i]->GetType() == Ombrix::kTypeString; };
    const std::string& name = d.name;
    if (name == "Cryptography.GenerateRSAKey" && numberAt(0)) args[0] = AtMost(args[0], 1024);
    if (name == "Cryptography.PKCS5PBKDF2HMAC") {
        if (numberAt(2)) args[2] = AtMost(args[2], 2000);
        if (numberAt(4)) args[4] = AtMost(args[4], 4096);
    }
    if (name == "Cryptography.BytesToKey" && numberAt(4)) args[4] = AtMost(args[4], 2000);
    if (name.starts_with("Cryptography.CreateRandomBytes") && numberAt(0)) {
        // Counts above INT_MAX are refused without work: keep them.
        const int64_t n = Ombrix::TruncateToInt64(args[0]->GetNumber());
        if (n > 65536 && n <= std::numeric_limits<int>::max()) args[0] = Num(65536);
    }
    if (name == "Cryptography.Read" && numberAt(2)) args[2] = AtMost(args[2], 65536);
    if (name == "Cryptography.Connect" && numberAt(1) && Ombrix::TruncateToInt32(args[1]->GetNumber()) >= 0)
        args[1] = Num(sockets.Near(input));
    if (name == "Cryptography.HashFile" && stringAt(1))
        args[1] = Str(FixturePath(std::string(args[1]->GetString(), args[1]->GetStringSize())));
}

// Whether the arguments ask a PEM reader for a slow key derivation.
bool Costly(const Args& args) {
    for (const auto& a : args) {
        std::string text;
        if (a->GetType() == Ombrix::kTypeString) text.assign(a->GetString(), a->GetStringSize());
        else if (a->GetType() == Ombrix::kTypeDataRef) {
            if (AutoRefPtr<IDataRef> data = a->GetData()) {
                text.resize(data->GetSize());
                text.resize(data->Read(text.data(), text.size(), 0));
            }
        }
        if (text.find("-----BEGIN") != std::string::npos && CostlyEncryptedPEM(text)) return true;
    }
    return false;
}

// FUZZ_TRACE=1 prints each call and its outcome (to check seeds).
bool Trace() {
    static const bool on = std::getenv("FUZZ_TRACE") != nullptr;
    return on;
}

void Check(const Declaration& d, const CallOutcome& outcome, bool wellFormed) {
    if (const unsigned long queued = ERR_peek_error()) {
        char text[256];
        ERR_error_string_n(queued, text, sizeof text);
        Fail(d.Text() + " left an OpenSSL error queued: " + text);
    }
    for (const auto& error : outcome.errors)
        if (error.id.empty() || error.message.empty()) Fail(d.Text() + " reported an error without id or message");
    const uint32_t kind = Ombrix::StatusKindOf(outcome.status);
    if (outcome.status && kind != Ombrix::kStatusMissing && kind != Ombrix::kStatusWrongType &&
        kind != Ombrix::kStatusEmptyObject)
        Fail(d.Text() + " gave status " + std::to_string(outcome.status));
    if (wellFormed && outcome.status) Fail(d.Text() + " refused well-formed arguments");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    SocketPair sockets;
    ArgumentMaker maker(input);
    const auto& routines = Routines();
    for (size_t call = 0; call < kMaxCalls && input.remaining_bytes() > 0; ++call) {
        const Declaration& d = *routines[input.ConsumeIntegralInRange<size_t>(0, routines.size() - 1)];
        const uint8_t shape = input.ConsumeIntegral<uint8_t>();
        size_t count = d.parameters.size();
        if (shape % 16 == 0) count = count ? input.ConsumeIntegralInRange<size_t>(0, count - 1) : 0;  // missing
        else if (shape % 16 == 1) count += input.ConsumeIntegralInRange<size_t>(1, 2);                // surplus
        Args args;
        bool wellFormed = count == d.parameters.size();
        for (size_t i = 0; i < count; ++i) {
            const bool declared = i < d.parameters.size() && input.ConsumeIntegralInRange<int>(0, 15) != 0;
            bool proper = false;
            args.push_back(maker.Make(declared ? d.parameters[i] : maker.AnyType(), proper));
            wellFormed = wellFormed && declared && proper;
        }
        Restrain(d, args, input, sockets);
        if (Costly(args)) continue;

        ERR_clear_error();
        // By declaration (every overload reachable), or by name through the engine's choice.
        const bool byName = shape & 0x80;
        const CallOutcome outcome =
            byName ? ModuleEngine().Call(d.name, args) : ModuleEngine().CallDeclaration(d, args);
        Check(*outcome.declaration, outcome, wellFormed && !byName);
        if (Trace())
            std::fprintf(stderr, "%s: status %u, %zu errors%s%s\n", outcome.declaration->Text().c_str(), outcome.status,
                         outcome.errors.size(), outcome.errors.empty() ? "" : ", first: ",
                         outcome.errors.empty() ? "" : outcome.errors.front().message.c_str());
        maker.Keep(outcome.result);
    }
    return 0;
}
