#include "Context.h"

#include <atomic>
#include <ctime>

#include "Ombrix/Json.h"

namespace Ombrix::Host {

namespace {

std::atomic<uint64_t> nextTransaction{1};

// Unique transaction ids without a shared counter touched by every call: each
// thread takes blocks of ids from the shared counter and hands them out
// itself, so calls on several threads do not contend for one cache line.
uint64_t NewTransactionId() {
    constexpr uint64_t kBlock = 1024;
    thread_local uint64_t next = 0, end = 0;
    if (next == end) {
        next = nextTransaction.fetch_add(kBlock, std::memory_order_relaxed);
        end = next + kBlock;
    }
    return next++;
}

class CallStack final : public UseCounted<ICallStack> {
public:
    explicit CallStack(std::vector<std::string> frames) : frames_(std::move(frames)) {}
    uint32_t GetDepth() const override { return static_cast<uint32_t>(frames_.size()); }
    std::string GetFrame(uint32_t index) const override { return index < frames_.size() ? frames_[index] : ""; }

private:
    std::vector<std::string> frames_;
};

const Variant* AsVariant(const AutoRefPtr<IObject>& object) {
    return object ? dynamic_cast<const Variant*>(object.get()) : nullptr;
}

}  // namespace

Context::Context(Engine& engine, const Declaration* routine)
    : engine_(engine), routine_(routine), transactionId_(NewTransactionId()), start_(std::chrono::steady_clock::now()) {}

AutoRefPtr<IEvent> Context::TakeEvent() {
    AutoRefPtr<IEvent> event = std::move(event_);
    event_ = nullptr;
    return event;
}

bool Context::InterruptWithEvent(AutoRefPtr<IEvent> event, AutoRefPtr<IObject> data) {
    if (!event) return false;
    event_ = std::move(event);
    interruptionData_ = std::move(data);
    interrupted_ = true;
    return true;
}

bool Context::SetUserData(const char* key, AutoRefPtr<IObject> value) {
    if (!key) return false;
    userData_[key] = std::move(value);
    return true;
}
bool Context::SetUserDataAsBoolean(const char* key, bool value) {
    return SetUserData(key, AutoRefPtr<IObject>(Variant::Boolean(value).detach()));
}
bool Context::SetUserDataAsNumber(const char* key, double value) {
    return SetUserData(key, AutoRefPtr<IObject>(Variant::Number(value).detach()));
}
bool Context::SetUserDataAsString(const char* key, const char* value, uint64_t size) {
    return SetUserData(key, AutoRefPtr<IObject>(Variant::String(value ? std::string(value, size) : "").detach()));
}
bool Context::SetUserDataAsData(const char* key, AutoRefPtr<IDataRef> value) {
    return SetUserData(key, AutoRefPtr<IObject>(Variant::DataRef(std::move(value)).detach()));
}

AutoRefPtr<IObject> Context::GetUserData(const char* key) const {
    if (!key) return nullptr;
    auto it = userData_.find(key);
    return it == userData_.end() ? nullptr : it->second;
}
bool Context::GetUserDataAsBoolean(const char* key, bool& out) const {
    const Variant* v = AsVariant(GetUserData(key));
    if (!v || v->GetType() != kTypeBoolean) return false;
    out = v->GetBoolean();
    return true;
}
bool Context::GetUserDataAsNumber(const char* key, double& out) const {
    const Variant* v = AsVariant(GetUserData(key));
    if (!v || v->GetType() != kTypeNumber) return false;
    out = v->GetNumber();
    return true;
}
bool Context::GetUserDataAsString(const char* key, std::string& out) const {
    const Variant* v = AsVariant(GetUserData(key));
    if (!v || v->GetType() != kTypeString) return false;
    out = std::string(v->StringValue());
    return true;
}
AutoRefPtr<IDataRef> Context::GetUserDataAsData(const char* key) const {
    const Variant* v = AsVariant(GetUserData(key));
    return v && v->GetType() == kTypeDataRef ? v->GetData() : nullptr;
}

void Context::ClearUserData(const char* key) {
    if (key)
        userData_.erase(key);
    else
        userData_.clear();
}

AutoRefPtr<IVariant> Context::CreateInstance(uint32_t typeCode) {
    // A value of a type this engine never handed out cannot be made.
    if (!engine_.KnowsType(typeCode)) return nullptr;
    return AutoRefPtr<IVariant>(engine_.CreateInstance(typeCode));
}

uint32_t Context::FindType(const char* typeName) { return typeName ? engine_.FindType(typeName) : 0; }

RoutineEntry Context::Lookup(const char* name, uint32_t count, const char* const* signature, void** opaque,
                             bool procedure) const {
    engine_.CountLookup();
    if (!name || !signature) return nullptr;
    std::vector<std::string> types;
    for (uint32_t i = 0; i < count && signature[i] && *signature[i]; ++i) types.emplace_back(signature[i]);
    const Declaration* found = engine_.FindRoutine(name, types, procedure);
    if (!found) return nullptr;
    if (opaque) *opaque = &engine_;
    return found->entry;
}

RoutineEntry Context::GetFunction(const char* name, uint32_t count, const char* const* signature,
                                  AutoRefPtr<IModuleInfo>* moduleInfo, void** opaque, int32_t) {
    if (moduleInfo) *moduleInfo = nullptr;
    return Lookup(name, count, signature, opaque, false);
}

RoutineEntry Context::GetProcedure(const char* name, uint32_t count, const char* const* signature,
                                   AutoRefPtr<IModuleInfo>* moduleInfo, void** opaque, int32_t) {
    if (moduleInfo) *moduleInfo = nullptr;
    return Lookup(name, count, signature, opaque, true);
}

uint32_t Context::CallRoutine(const char* name, uint32_t argumentCount, IVariant** arguments, IVariant* result) {
    if (!name) return MakeTypeCode(0, Container::Single);
    std::vector<AutoRefPtr<IVariant>> values;
    for (uint32_t i = 0; i < argumentCount; ++i) values.push_back(AutoRefPtr<IVariant>::Share(arguments[i]));
    const Declaration* declaration = engine_.Choose(name, values);
    if (!declaration) return 1;
    CallOutcome outcome = engine_.CallDeclaration(*declaration, std::move(values));
    for (const ErrorReport& e : outcome.errors) errors_.push_back(e);
    if (result && outcome.result) result->Assign(outcome.result.get());
    return outcome.status;
}

void Context::Log(bool error, const char* category, int32_t level, const char* message) {
    engine_.Log().Record({error, category ? category : "", level, message ? message : ""});
}

void Context::TriggerErrorHandler(int32_t severity, const char* moduleNamespace, const char* errorId,
                                  const char* message) {
    errors_.push_back({severity, moduleNamespace ? moduleNamespace : "", errorId ? errorId : "", message ? message : ""});
}

AutoRefPtr<IJSON> Context::GetStackedErrors() const {
    JSON::Document list = JSON::Document::array();
    for (const ErrorReport& e : errors_)
        list.push_back({{"namespace", e.moduleNamespace}, {"id", e.id}, {"message", e.message}});
    return AutoRefPtr<IJSON>(new JSON::JSONWrapper(std::move(list)));
}

void Context::Cancel(const char* reason) {
    canceled_ = true;
    cancellationReason_ = reason ? reason : "";
}

AutoRefPtr<ICallStack> Context::GetCallStack() const {
    std::vector<std::string> frames = frames_;
    if (routine_) frames.push_back(routine_->name);
    return AutoRefPtr<ICallStack>(new CallStack(std::move(frames)));
}

uint64_t Context::MicrosecondsSinceStart() const {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start_).count());
}

uint64_t Context::CPUTimeMicroseconds() const {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

}  // namespace Ombrix::Host
