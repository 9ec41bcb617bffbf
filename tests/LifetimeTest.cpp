// Lifetimes the host and the SDK promise: Data across its backings when an
// operation's input is its own bytes, and a parked call that owns what its
// caller only lent. Run under AddressSanitizer, a broken promise is a report.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <type_traits>

#include "Harness.h"
#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

using Ombrix::Data;

static_assert(!std::is_move_constructible_v<Data> && !std::is_copy_constructible_v<Data>,
              "a Data may hold its bytes inside itself: moving or copying it would leave a pointer into another");

AutoRefPtr<IDataRef> WrittenInPlace(const std::string& bytes) {
    AutoRefPtr<Data> data = Data::Make();
    std::memcpy(data->PrepareForWriting(bytes.size()), bytes.data(), bytes.size());
    return AutoRefPtr<IDataRef>(std::move(data));
}

std::string Contents(const IDataRef& data) {
    std::string out(data.GetSize(), '\0');
    out.resize(data.Read(out.data(), out.size(), 0));
    return out;
}

TEST(DataSemantics, EveryBackingAgreesAndAcceptsItsOwnBytes) {
    const std::string small = Pattern(Data::kInlineBytes), large = Pattern(300);  // the first fits inside the object
    struct Backing {
        const char* name;
        size_t least, most;  // the sizes it holds
        std::function<AutoRefPtr<IDataRef>(const std::string&)> make;
        bool fits(const std::string& bytes) const { return bytes.size() >= least && bytes.size() <= most; }
    };
    const TempDir files;
    int written = 0;
    const Backing backings[] = {
        {"inline", 0, Data::kInlineBytes, WrittenInPlace},
        {"in place on the heap", Data::kInlineBytes + 1, SIZE_MAX, WrittenInPlace},
        {"string", 0, SIZE_MAX, [](const std::string& b) { return Bytes(b); }},
        {"file", 0, SIZE_MAX, [&](const std::string& b) {
             return AutoRefPtr<IDataRef>(Ombrix::Host::FileData::Open(files.Write(std::to_string(written++), b)));
         }},
    };
    for (const std::string& content : {std::string(), small, large}) {
        std::string changed = content.empty() ? "x" : content;
        changed.back() ^= 1;
        for (const Backing& a : backings) {
            if (!a.fits(content)) continue;
            SCOPED_TRACE(std::string(a.name) + ", " + std::to_string(content.size()) + " bytes");
            AutoRefPtr<IDataRef> data = a.make(content);
            ASSERT_TRUE(data);
            EXPECT_EQ(Contents(*data), content);
            char past;
            EXPECT_EQ(data->Read(&past, 1, content.size()), 0u);
            AutoRefPtr<IDataRef> clone = data->Clone();
            for (const Backing& b : backings) {
                if (!b.fits(content)) continue;
                EXPECT_TRUE(data->IsEqual(b.make(content).get())) << b.name;
                EXPECT_FALSE(data->IsEqual(b.make(changed).get())) << b.name;
            }
            auto* own = dynamic_cast<Data*>(data.get());
            if (!own) {
                EXPECT_FALSE(data->Assign("x", 1)) << "read-only";
                continue;
            }
            ASSERT_TRUE(clone->Assign("other", 5));
            EXPECT_EQ(Contents(*data), content) << "a clone is a copy";
            if (content.empty()) continue;
            // Truncation keeps the bytes written and never grows.
            own->Truncate(content.size() - 1);
            own->Truncate(content.size() + 5);
            const std::string kept = content.substr(0, content.size() - 1);
            EXPECT_EQ(own->View(), kept);
            // Its own bytes as input: whole, read onto themselves, a suffix.
            own->Assign(own->GetData(), own->GetSize());
            EXPECT_EQ(own->View(), kept);
            own->Read(const_cast<char*>(own->GetData()), kept.size() - 1, 1);
            EXPECT_EQ(own->View(), kept.substr(1) + kept.back());
            own->Assign(own->GetData() + 1, own->GetSize() - 1);
            EXPECT_EQ(own->View(), kept.substr(2) + kept.back());
            own->Truncate(3);
            EXPECT_EQ(own->View(), kept.substr(2, 3));
            own->Assign(nullptr, 7);
            EXPECT_EQ(own->GetSize(), 0u);
        }
    }
}

class ParkedCall : public ModuleTest {};

// Net.Wait on a socket nobody writes to parks until its timeout; meanwhile
// the caller's lent bytes are freed.
TEST_F(ParkedCall, OwnsWhatItsCallerLent) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const auto* wait = engine_.Overloads("Net.Wait").front();
    for (const bool borrowed : {false, true}) {
        SCOPED_TRACE(borrowed ? "StartBorrowed" : "StartDeclaration");
        auto mode = std::make_unique<std::string>("r");
        Args args = {Num(pair[0]), AutoRefPtr<IVariant>(Variant::LentString(mode->data(), mode->size())), Num(30)};
        CallOutcome outcome;
        const Ombrix::Host::ArgumentPointers pointers(args);
        const auto call = borrowed ? engine_.StartBorrowed(*wait, pointers.Span(), true, outcome)
                                   : engine_.StartDeclaration(*wait, args);
        ASSERT_NE(call, 0u);
        args.clear();
        mode.reset();
        engine_.RunUntilFinished(call);
        outcome = engine_.TakeOutcome(call);
        EXPECT_TRUE(outcome.ok());
        EXPECT_FALSE(outcome.result->GetBoolean()) << "timed out";
    }
    ::close(pair[0]);
    ::close(pair[1]);
}

}  // namespace
}  // namespace Testing
