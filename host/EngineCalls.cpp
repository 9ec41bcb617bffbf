// Engine: running calls. A call runs until it finishes or interrupts with an
// event; then it is parked and the event loop (EngineLoop.cpp) resumes it.
#include <stdexcept>
#include <utility>

#include "EngineLoop.h"

namespace Ombrix::Host {

CallOutcome Engine::Call(std::string_view name, const std::vector<AutoRefPtr<IVariant>>& arguments) {
    const Declaration* declaration = Choose(name, arguments);
    if (!declaration) throw std::invalid_argument("unknown routine " + std::string(name));
    return CallDeclaration(*declaration, arguments);
}

CallOutcome Engine::CallEntry(std::string_view entryName, const std::vector<AutoRefPtr<IVariant>>& arguments) {
    const Declaration* declaration = FindEntry(entryName);
    if (!declaration) throw std::invalid_argument("unknown entry point " + std::string(entryName));
    return CallDeclaration(*declaration, arguments);
}

CallOutcome Engine::CallDeclaration(const Declaration& declaration,
                                    const std::vector<AutoRefPtr<IVariant>>& arguments, bool withResult) {
    return CallBorrowed(declaration, ArgumentPointers(arguments).Span(), withResult);
}

CallOutcome Engine::CallBorrowed(const Declaration& declaration, std::span<IVariant* const> arguments,
                                 bool withResult) {
    CallOutcome outcome;
    const CallHandle call = StartBorrowed(declaration, arguments, withResult, outcome);
    if (!call) return outcome;
    RunUntilFinished(call);
    return TakeOutcome(call);
}

CallHandle Engine::StartBorrowed(const Declaration& declaration, std::span<IVariant* const> arguments,
                                 bool withResult, CallOutcome& outcome) {
    // Almost every call finishes at once: its record stays on this stack and
    // it never touches the shared record of started calls.
    CallRecord run;
    Prepare(run, declaration, withResult);
    run.passed = arguments;
    Step(run);
    if (run.finished) {
        outcome = std::move(run.outcome);
        return 0;
    }
    return Park(Detach(run));
}

// A new call of a bound declaration: its result value (for a function) and
// its context.
void Engine::Prepare(CallRecord& call, const Declaration& declaration, bool withResult) {
    if (!declaration.entry) throw std::invalid_argument("entry point " + declaration.entryName + " is not bound");
    call.declaration = &declaration;
    call.outcome.declaration = &declaration;
    if (withResult) call.outcome.result = CreateInstance(declaration.resultCode);
    call.context = AutoRefPtr<Context>(new Context(*this, &declaration));
}

std::unique_ptr<CallRecord> Engine::Detach(CallRecord& run) {
    auto record = std::make_unique<CallRecord>();
    record->declaration = run.declaration;
    record->Own(run.passed);
    record->context = std::move(run.context);
    record->outcome = std::move(run.outcome);
    record->event = std::move(run.event);
    record->deadline = run.deadline;
    return record;
}

CallHandle Engine::Park(std::unique_ptr<CallRecord> call) {
    std::lock_guard lock(callsMutex_);
    const CallHandle handle = nextCall_++;
    calls_.emplace(handle, std::move(call));
    return handle;
}

CallHandle Engine::Start(std::string_view name, std::vector<AutoRefPtr<IVariant>> arguments) {
    const Declaration* declaration = Choose(name, arguments);
    if (!declaration) throw std::invalid_argument("unknown routine " + std::string(name));
    return StartDeclaration(*declaration, std::move(arguments));
}

CallHandle Engine::StartDeclaration(const Declaration& declaration, std::vector<AutoRefPtr<IVariant>> arguments,
                                    bool withResult) {
    auto call = std::make_unique<CallRecord>();
    Prepare(*call, declaration, withResult);
    call->Own(ArgumentPointers(arguments).Span());

    CallRecord& record = *call;
    Step(record);
    return Park(std::move(call));
}

// Runs the entry point once. A call that interrupted with an event is parked
// on it, unless it has used up its resumptions; any other call is finished:
// its errors are collected and its per-call user data released.
void Engine::Step(CallRecord& call) {
    CallOutcome& outcome = call.outcome;
    Context& context = *call.context;
    outcome.status = call.declaration->entry(static_cast<uint32_t>(call.passed.size()),
                                             const_cast<IVariant**>(call.passed.data()), outcome.result.get(),
                                             this, &context);
    AutoRefPtr<IEvent> event = context.TakeEvent();
    if (context.IsInterrupted() && event && outcome.resumptions < options_.maxResumptions) {
        std::optional<std::chrono::steady_clock::time_point> deadline;
        if (const auto* fd = dynamic_cast<const FDEvent*>(event.get()); fd && fd->GetTimeoutMilliseconds() >= 0)
            deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(fd->GetTimeoutMilliseconds());
        std::lock_guard lock(callsMutex_);
        call.deadline = deadline;
        call.event = std::move(event);
        return;
    }
    outcome.errors = context.Errors();
    context.ClearUserData(nullptr);
    call.context = nullptr;
    call.arguments.clear();
    call.raw.clear();
    call.passed = {};
    call.finished.store(true, std::memory_order_release);
}

CallRecord& Engine::Record(CallHandle call) const {
    std::lock_guard lock(callsMutex_);
    auto it = calls_.find(call);
    if (it == calls_.end()) throw std::invalid_argument("unknown call " + std::to_string(call));
    return *it->second;
}

bool Engine::Finished(CallHandle call) const {
    std::lock_guard lock(callsMutex_);
    auto it = calls_.find(call);
    return it != calls_.end() && it->second->finished;
}

CallOutcome Engine::TakeOutcome(CallHandle call) {
    CallRecord& record = Record(call);
    if (!record.finished) throw std::invalid_argument("call " + std::to_string(call) + " has not finished");
    CallOutcome outcome = std::move(record.outcome);
    std::lock_guard lock(callsMutex_);
    calls_.erase(call);
    return outcome;
}

}  // namespace Ombrix::Host
