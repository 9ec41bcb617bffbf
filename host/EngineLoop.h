// The engine's record of one started call: what it runs, the context it keeps
// across resumptions, and the event it is parked on.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <span>
#include <vector>

#include "Context.h"
#include "Engine.h"

namespace Ombrix::Host {

struct CallRecord {
    const Declaration* declaration = nullptr;
    std::vector<AutoRefPtr<IVariant>> arguments;
    std::vector<IVariant*> raw;  // the arguments as the entry point takes them
    // What the entry point is handed: raw, or arguments a synchronous caller
    // lends for as long as the call does not park.
    std::span<IVariant* const> passed;
    AutoRefPtr<Context> context;
    CallOutcome outcome;
    // Set last when the call ends (release), so a thread that sees it sees the outcome.
    std::atomic<bool> finished{false};
    // While parked: the event, and when it times out (none for a negative
    // timeout). Written and read under the engine's callsMutex_ once the
    // record is shared.
    AutoRefPtr<IEvent> event;
    std::optional<std::chrono::steady_clock::time_point> deadline;

    bool Parked() const { return !finished && event; }
    // Takes the arguments over: the record then holds its own references and
    // hands the entry point their pointers. A lent value (a lent string, a
    // buffer over lent bytes) is replaced by a copy that owns its bytes, so a
    // parked call never reads what its caller lent (Variant::Owning).
    void Own(std::span<IVariant* const> values) {
        std::vector<AutoRefPtr<IVariant>> held;
        held.reserve(values.size());
        for (IVariant* value : values) held.push_back(Variant::Owning(value));
        arguments = std::move(held);
        raw.clear();
        raw.reserve(arguments.size());
        for (const auto& a : arguments) raw.push_back(a.get());
        passed = raw;
    }
};

}  // namespace Ombrix::Host
