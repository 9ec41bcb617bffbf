// Engine: running calls, with the resume loop for calls that interrupt with an event.
#include "Context.h"
#include "Engine.h"

namespace Ombrix::Host {

CallOutcome Engine::Call(std::string_view name, std::vector<AutoRefPtr<IVariant>> arguments) {
    const Declaration* declaration = Choose(name, arguments);
    if (!declaration) throw std::invalid_argument("unknown routine " + std::string(name));
    return CallDeclaration(*declaration, std::move(arguments));
}

CallOutcome Engine::CallEntry(std::string_view entryName, std::vector<AutoRefPtr<IVariant>> arguments) {
    const Declaration* declaration = FindEntry(entryName);
    if (!declaration) throw std::invalid_argument("unknown entry point " + std::string(entryName));
    return CallDeclaration(*declaration, std::move(arguments));
}

CallOutcome Engine::CallDeclaration(const Declaration& declaration, std::vector<AutoRefPtr<IVariant>> arguments,
                                    bool withResult) {
    CallOutcome outcome;
    outcome.declaration = &declaration;
    if (!declaration.entry) throw std::invalid_argument("entry point " + declaration.entryName + " is not bound");
    if (withResult) outcome.result = CreateInstance(declaration.resultCode);

    std::vector<IVariant*> raw;
    raw.reserve(arguments.size());
    for (const auto& a : arguments) raw.push_back(a.get());

    AutoRefPtr<Context> context(new Context(*this, &declaration));
    for (;;) {
        outcome.status = declaration.entry(static_cast<uint32_t>(raw.size()), raw.data(), outcome.result.get(), this,
                                           context.get());
        AutoRefPtr<IEvent> event = context->TakeEvent();
        if (!context->IsInterrupted() || !event || outcome.resumptions >= options_.maxResumptions) break;
        // Suspended on a descriptor: wait for it (or its timeout), then run the same call again.
        if (auto* fdEvent = dynamic_cast<FDEvent*>(event.get())) fdEvent->Wait();
        context->ClearInterrupted();
        context->SetResuming(true);
        ++outcome.resumptions;
    }
    outcome.errors = context->Errors();
    context->ClearUserData(nullptr);
    return outcome;
}

}  // namespace Ombrix::Host
