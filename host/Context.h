// The per-call context the engine hands to a routine: records error reports,
// resolves types and imported routines, and carries interruption state and
// per-call user data across the resumptions of one call.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "Engine.h"

namespace Ombrix::Host {

class Context final : public UseCounted<IContext> {
public:
    Context(Engine& engine, const Declaration* routine);

    const std::vector<ErrorReport>& Errors() const { return errors_; }
    // The event a routine interrupted with, if any; cleared by TakeEvent.
    AutoRefPtr<IEvent> TakeEvent();
    void PushFrame(std::string routine) { frames_.insert(frames_.begin(), std::move(routine)); }

    uint64_t GetTransactionId() const override { return transactionId_; }
    void SetInterrupted() override { interrupted_ = true; }
    void ClearInterrupted() override { interrupted_ = false; }
    bool IsInterrupted() const override { return interrupted_; }
    bool IsResuming() const override { return resuming_; }
    bool InterruptWithEvent(AutoRefPtr<IEvent> event, AutoRefPtr<IObject> data) override;
    bool InterruptWithJob(AutoRefPtr<IObject>) override { return false; }
    AutoRefPtr<IObject> GetInterruptionData() const override { return interruptionData_; }
    bool ExecuteAfterInterruption(ContextCallback, void*) override { return false; }
    void ExitExecution() override { canceled_ = true; }
    uint64_t GetUserDataId() const override { return transactionId_; }
    bool SetUserData(const char* key, AutoRefPtr<IObject> value) override;
    bool SetUserDataAsBoolean(const char* key, bool value) override;
    bool SetUserDataAsNumber(const char* key, double value) override;
    bool SetUserDataAsString(const char* key, const char* value, uint64_t size) override;
    bool SetUserDataAsData(const char* key, AutoRefPtr<IDataRef> value) override;
    bool SetUserDataAsStream(const char*, AutoRefPtr<IStream>) override { return false; }
    AutoRefPtr<IObject> GetUserData(const char* key) const override;
    bool GetUserDataAsBoolean(const char* key, bool& out) const override;
    bool GetUserDataAsNumber(const char* key, double& out) const override;
    bool GetUserDataAsString(const char* key, std::string& out) const override;
    AutoRefPtr<IDataRef> GetUserDataAsData(const char* key) const override;
    AutoRefPtr<IStream> GetUserDataAsStream(const char*) const override { return nullptr; }
    void ClearUserData(const char* key) override;
    AutoRefPtr<IVariant> CreateInstance(uint32_t typeCode) override;
    uint32_t FindType(const char* typeName) override;
    AutoRefPtr<IEventScheduler> GetEventScheduler() const override { return engine_.Scheduler(); }
    RoutineEntry GetFunction(const char* name, uint32_t count, const char* const* signature,
                             AutoRefPtr<IModuleInfo>* moduleInfo, void** opaque, int32_t flag) override;
    RoutineEntry GetProcedure(const char* name, uint32_t count, const char* const* signature,
                              AutoRefPtr<IModuleInfo>* moduleInfo, void** opaque, int32_t flag) override;
    std::string GetRoutineName() const override { return routine_ ? routine_->name : std::string(); }
    int32_t GetLineNumber() const override { return 0; }
    std::string GetLineContent() const override { return {}; }
    std::string GetResourcePath() const override { return {}; }
    bool RegisterModuleCallbackFunction(const char*, ContextCallback, void*) override { return false; }
    bool ExecuteCallbackFunctions(const char*) override { return false; }
    uint32_t CallRoutine(const char* name, uint32_t argumentCount, IVariant** arguments, IVariant* result) override;
    uint32_t CallRoutineByTrigger(const char*, uint32_t, IVariant**, IVariant*) override { return 0; }
    std::vector<std::string> GetTriggers() const override { return {}; }
    std::string GetInitialTrigger() const override { return {}; }
    AutoRefPtr<IJSON> Serialize() const override { return nullptr; }
    bool UpdateContext(const IJSON*) override { return false; }
    AutoRefPtr<IPolicy> GetPolicy() const override { return engine_.GetPolicy(); }
    void Log(bool error, const char* category, int32_t level, const char* message) override;
    AutoRefPtr<IConfiguration> CreateConfiguration() override { return AutoRefPtr<IConfiguration>(new Configuration); }
    void TriggerErrorHandler(int32_t severity, const char* moduleNamespace, const char* errorId,
                             const char* message) override;
    bool HasError() const override { return !errors_.empty(); }
    int32_t GetErrorSeverity() const override { return errors_.empty() ? 0 : errors_.front().severity; }
    std::string GetErrorModuleNamespace() const override { return errors_.empty() ? "" : errors_.front().moduleNamespace; }
    std::string GetErrorId() const override { return errors_.empty() ? "" : errors_.front().id; }
    std::string GetErrorMessage() const override { return errors_.empty() ? "" : errors_.front().message; }
    AutoRefPtr<IJSON> GetStackedErrors() const override;
    int32_t GetErrorLineNumber() const override { return 0; }
    std::string GetErrorLineContent() const override { return {}; }
    std::string GetErrorResourcePath() const override { return {}; }
    void ClearError() override { errors_.clear(); }
    void Cancel(const char* reason) override;
    bool IsCanceled() const override { return canceled_; }
    std::string GetCancellationReason() const override { return cancellationReason_; }
    AutoRefPtr<ITelemetry> GetTelemetry() const override { return nullptr; }
    AutoRefPtr<ICallStack> GetCallStack() const override;
    AutoRefPtr<IModuleInfo> GetModuleInfo() const override { return nullptr; }
    uint64_t GetPolicyRevision() const override { return 0; }
    uint64_t MicrosecondsSinceStart() const override;
    uint64_t CPUTimeMicroseconds() const override;
    bool IsPreRun() const override { return false; }
    void SetResultMaybe(bool) override {}
    void SetResuming(bool resuming) override { resuming_ = resuming; }
    uint64_t GetPolicyStatementBlockId() const override { return 0; }

private:
    RoutineEntry Lookup(const char* name, uint32_t count, const char* const* signature, void** opaque,
                        bool procedure) const;

    Engine& engine_;
    const Declaration* routine_;
    uint64_t transactionId_;
    std::chrono::steady_clock::time_point start_;
    std::vector<ErrorReport> errors_;
    bool interrupted_ = false;
    bool resuming_ = false;
    bool canceled_ = false;
    std::string cancellationReason_;
    AutoRefPtr<IEvent> event_;
    AutoRefPtr<IObject> interruptionData_;
    std::map<std::string, AutoRefPtr<IObject>> userData_;
    // Frames pushed above the routine, innermost first; the routine's own
    // frame is added only when a call stack is asked for, so a call that
    // never asks allocates nothing for it.
    std::vector<std::string> frames_;
};

}  // namespace Ombrix::Host
