// Engine: the event loop over parked calls. One poll(2) watches every parked
// call's descriptor and the nearest timeout; each call whose descriptor is
// ready or whose timeout passed is run again with the ready flags on its event.
#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "EngineLoop.h"

namespace Ombrix::Host {

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds until the time point, rounded up so a wait never ends early.
int MillisecondsUntil(Clock::time_point when, Clock::time_point now) {
    if (when <= now) return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - now).count();
    return static_cast<int>(std::min<decltype(left)>(left, 1 << 30));
}

}  // namespace

size_t Engine::ParkedCalls() const {
    std::lock_guard lock(callsMutex_);
    return static_cast<size_t>(std::count_if(calls_.begin(), calls_.end(), [](const auto& c) { return c.second->Parked(); }));
}

size_t Engine::RunOnce(int timeoutMilliseconds) {
    // What is parked now; a call resumed below may start or park others,
    // which wait for the next turn.
    struct Watch {
        CallHandle call;
        AutoRefPtr<IEvent> event;  // held, so a call resumed meanwhile cannot recycle its address
        FDEvent* fd;               // null for an event that is not a descriptor's: ready at once
    };
    std::vector<Watch> watches;
    std::vector<pollfd> entries;
    const Clock::time_point now = Clock::now();
    int wait = timeoutMilliseconds;
    std::unique_lock lock(callsMutex_);
    for (const auto& [handle, call] : calls_) {
        if (!call->Parked()) continue;
        auto* fd = dynamic_cast<FDEvent*>(call->event.get());
        watches.push_back({handle, call->event, fd});
        if (fd) entries.push_back({fd->GetDescriptor(), fd->PollEvents(), 0});
        int until = fd ? -1 : 0;
        if (call->deadline) until = MillisecondsUntil(*call->deadline, now);
        if (until >= 0 && (wait < 0 || until < wait)) wait = until;
    }
    lock.unlock();
    if (watches.empty()) return 0;

    int status;
    while ((status = ::poll(entries.data(), entries.size(), wait)) < 0 && errno == EINTR) {
        // A signal cut the wait short: wait for what is left of it.
        if (wait > 0) wait = MillisecondsUntil(now + std::chrono::milliseconds(wait), Clock::now());
    }
    const Clock::time_point after = Clock::now();
    // A poll that cannot wait at all (no memory, too many descriptors) must not
    // spin: every watched call then runs again as after a timeout.
    const bool failed = status < 0;

    size_t resumed = 0;
    size_t entry = 0;
    for (const Watch& watch : watches) {
        const short revents = watch.fd && status > 0 ? entries[entry].revents : 0;
        if (watch.fd) ++entry;
        // The call may have been resumed (or taken) by a call that ran before
        // it in this turn, or by another thread: taking its event under the
        // lock makes this thread the only one to resume it.
        lock.lock();
        auto it = calls_.find(watch.call);
        if (it == calls_.end() || it->second->event.get() != watch.event.get() || it->second->finished) {
            lock.unlock();
            continue;
        }
        CallRecord& call = *it->second;
        const uint32_t ready = watch.fd ? watch.fd->ReadyFlags(revents) : 0;
        const bool timedOut = failed || (call.deadline && *call.deadline <= after);
        if (watch.fd && !ready && !timedOut) {
            lock.unlock();
            continue;
        }
        AutoRefPtr<IEvent> event = std::move(call.event);
        call.event = nullptr;
        call.deadline.reset();
        lock.unlock();
        if (watch.fd) watch.fd->Fire(ready);
        call.context->ClearInterrupted();
        call.context->SetResuming(true);
        ++call.outcome.resumptions;
        Step(call);
        ++resumed;
    }
    return resumed;
}

void Engine::RunUntilIdle() {
    while (ParkedCalls() > 0) RunOnce(-1);
}

void Engine::RunUntilFinished(CallHandle call) {
    // Another thread may resume this call meanwhile; a bounded wait notices.
    constexpr int kRecheckMilliseconds = 100;
    while (!Record(call).finished.load(std::memory_order_acquire)) RunOnce(kRecheckMilliseconds);
}

}  // namespace Ombrix::Host
