// The host interfaces as both sides compile them. Slot orders of IVariant,
// IDataRef, IUserDefinedType, IContext and IModuleInfo are part of the ABI and
// must not change; the others were fixed once by this SDK.
// How hosts and modules use them (load sequence, calls, type codes, threads, ABI): docs/host-sdk.md
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Ombrix/Object.h"
#include "Ombrix/TypeCodes.h"

namespace Ombrix {

class IContext;
class IJSON;
class IVariant;
class IModuleInfo;

// Entry-point convention shared by module routines and host routines.
using RoutineEntry = uint32_t (*)(uint32_t argumentCount, IVariant** arguments, IVariant* result,
                                  void* opaque, IContext* context);

enum ErrorSeverity : int32_t { kSeverityInfo = 0, kSeverityWarning = 1, kSeverityError = 2 };

class IDataRef : public IObject {
public:
    virtual uint64_t GetSize() const = 0;
    virtual bool Assign(const char* bytes, uint64_t size) = 0;
    // Copies up to size bytes starting at offset; returns the count copied.
    virtual uint64_t Read(char* destination, uint64_t size, uint64_t offset) const = 0;
    virtual bool IsEqual(const IDataRef* other) const = 0;
    virtual AutoRefPtr<IDataRef> Clone() const = 0;
    // Contiguous bytes, or null when the implementation keeps none.
    virtual const char* GetData() const = 0;
    virtual ~IDataRef() = default;
};

class IStream : public IObject {
public:
    virtual uint64_t Read(char* destination, uint64_t size) = 0;
    virtual uint64_t Write(const char* bytes, uint64_t size) = 0;
    virtual ~IStream() = default;
};

class IUserDefinedType : public IObject {
public:
    enum class Comparison : int32_t { Equal = 0, LessThan = 1 };

    virtual const char* GetName() const = 0;
    virtual AutoRefPtr<IUserDefinedType> Clone() const = 0;
    virtual uint32_t GetType() const = 0;
    virtual bool Compare(const IUserDefinedType* other, Comparison comparison) const = 0;
    virtual bool Interface_Deserialize(const IJSON* json, IContext* context) = 0;
    virtual bool Interface_Deserialize(const IJSON* json) = 0;
    virtual AutoRefPtr<IJSON> Interface_Serialize(IContext* context) const = 0;
    virtual AutoRefPtr<IJSON> Interface_Serialize() const = 0;
    virtual bool FromBinaryData(const void* bytes, uint64_t size, uint32_t version) = 0;
    virtual uint64_t ToBinaryData(void** bytes, uint32_t version) const = 0;
    virtual ~IUserDefinedType() = default;

    AutoRefPtr<IJSON> Serialize(IContext* context) const;
    bool Deserialize(const IJSON* json, IContext* context) { return Interface_Deserialize(json, context); }
    std::string ToString() const { return GetName(); }
    uint64_t ToStringSize() const { return ToString().size(); }
    bool IsEqual(const IUserDefinedType* other) const { return Compare(other, Comparison::Equal); }
    bool LessThan(const IUserDefinedType* other) const { return Compare(other, Comparison::LessThan); }
    static bool IsVector(uint32_t code) { return (code & 3u) == 2u; }
    static bool IsNumberMap(uint32_t code) { return (code & 3u) == 3u; }
    static bool IsStringMap(uint32_t code) { return code != 0 && (code & 3u) == 0u; }
};

// A JSON value. JSON is a custom type of the host (type code kTypeJSON).
class IJSON : public IUserDefinedType {
public:
    enum class Kind : int32_t { Null, Boolean, Number, String, Array, Object };

    virtual Kind GetKind() const = 0;
    virtual bool HasMember(const char* key) const = 0;
    virtual AutoRefPtr<IJSON> GetMember(const char* key) const = 0;
    virtual bool GetMemberString(const char* key, std::string& out) const = 0;
    virtual bool GetMemberBoolean(const char* key, bool& out) const = 0;
    virtual bool GetMemberNumber(const char* key, double& out) const = 0;
    virtual bool SetMember(const char* key, const IJSON* value) = 0;
    virtual bool SetMemberString(const char* key, const char* value, uint64_t size) = 0;
    virtual bool SetMemberNumber(const char* key, double value) = 0;
    virtual bool SetMemberUInt64(const char* key, uint64_t value) = 0;
    virtual bool SetMemberBoolean(const char* key, bool value) = 0;
    virtual uint64_t GetArraySize() const = 0;
    virtual AutoRefPtr<IJSON> GetElement(uint64_t index) const = 0;
    virtual bool Append(const IJSON* value) = 0;
    virtual bool GetStringValue(std::string& out) const = 0;
    virtual bool GetNumberValue(double& out) const = 0;
    virtual bool GetBooleanValue(bool& out) const = 0;
    // Compact JSON text.
    virtual std::string ToJSONText() const = 0;
    virtual ~IJSON() = default;

    bool IsObject() const { return GetKind() == Kind::Object; }
    bool IsArray() const { return GetKind() == Kind::Array; }
};

class IVectorGeneric : public IObject {
public:
    // Type code of one element (a single-value code).
    virtual uint32_t GetElementType() const = 0;
    virtual uint64_t GetSize() const = 0;
    virtual AutoRefPtr<IVariant> GetElement(uint64_t index) const = 0;
    virtual bool Append(const IVariant* value) = 0;
    virtual bool AppendBoolean(bool value) = 0;
    virtual bool AppendNumber(double value) = 0;
    virtual bool AppendString(const char* value, uint64_t size) = 0;
    virtual bool AppendData(AutoRefPtr<IDataRef> value) = 0;
    virtual bool AppendUserDefined(AutoRefPtr<IUserDefinedType> value) = 0;
    virtual void Clear() = 0;
    virtual ~IVectorGeneric() = default;
};

class IMapGeneric : public IObject {
public:
    virtual uint32_t GetElementType() const = 0;
    virtual uint64_t GetSize() const = 0;
    virtual ~IMapGeneric() = default;
};

class IVariant : public IObject {
public:
    virtual uint32_t GetType() const = 0;
    virtual std::string GetTypeAsString(IContext* context) const = 0;
    virtual bool GetBoolean() const = 0;
    virtual double GetNumber() const = 0;
    virtual const char* GetString() const = 0;
    virtual uint64_t GetStringSize() const = 0;
    virtual AutoRefPtr<IDataRef> GetData() const = 0;
    virtual AutoRefPtr<IStream> GetStream() const = 0;
    // A new reference to the custom value, or null when the variable holds none.
    virtual IUserDefinedType* GetUserDefinedPtr() const = 0;
    virtual uint64_t GetVectorSize() const = 0;
    virtual AutoRefPtr<IVectorGeneric> GetVector() const = 0;
    virtual uint64_t GetMapSize() const = 0;
    virtual AutoRefPtr<IMapGeneric> GetMap() const = 0;
    virtual bool IsEqual(const IVariant* other) const = 0;
    virtual bool Assign(const IVariant* other) = 0;
    virtual bool AssignBoolean(bool value) = 0;
    virtual bool AssignNumber(double value) = 0;
    virtual bool AssignString(const char* value, uint64_t size) = 0;
    virtual bool AssignData(AutoRefPtr<IDataRef> value) = 0;
    virtual bool AssignStream(AutoRefPtr<IStream> value) = 0;
    virtual bool SetUserDefined(AutoRefPtr<IUserDefinedType> value) = 0;
    virtual bool AssignVector(AutoRefPtr<IVectorGeneric> value) = 0;
    virtual bool AssignMap(AutoRefPtr<IMapGeneric> value) = 0;
    virtual AutoRefPtr<IVariant> Clone() const = 0;
    virtual bool Deserialize(const IJSON* json, IContext* context) = 0;
    virtual AutoRefPtr<IJSON> Serialize(IContext* context) const = 0;
    virtual ~IVariant() = default;
};

class ILogger : public IObject {
public:
    virtual void DebugLog(const char* category, int32_t level, const char* message, int32_t line,
                          IContext* context) = 0;
    virtual void ErrorLog(const char* category, const char* message, int32_t line, IContext* context) = 0;
    virtual bool CreateUserDefinedLog(const char* name) = 0;
    virtual bool DeleteUserDefinedLog(const char* name) = 0;
    virtual ~ILogger() = default;
};

class IConfiguration : public IObject {
public:
    virtual bool GetBoolean(const char* key, bool defaultValue) const = 0;
    virtual int64_t GetInteger(const char* key, int64_t defaultValue) const = 0;
    virtual double GetReal(const char* key, double defaultValue) const = 0;
    virtual std::string GetString(const char* key, const char* defaultValue) const = 0;
    virtual uint64_t GetSize() const = 0;
    virtual std::vector<std::string> GetAllMatchingKeys(const char* prefix) const = 0;
    virtual ~IConfiguration() = default;
};

class IPolicy : public IObject {
public:
    virtual const char* GetName() const = 0;
    // Stable identity of the policy; equal identities share resolved imports.
    virtual uint64_t GetIdentity() const = 0;
    virtual ~IPolicy() = default;
};

class ICallStack : public IObject {
public:
    virtual uint32_t GetDepth() const = 0;
    // Routine name of frame index (0 is the innermost).
    virtual std::string GetFrame(uint32_t index) const = 0;
    virtual ~ICallStack() = default;
};

class ITelemetry : public IObject {
public:
    virtual void Count(const char* name, int64_t delta) = 0;
    virtual ~ITelemetry() = default;
};

class IThreadPool : public IObject {
public:
    virtual uint32_t GetThreadCount() const = 0;
    virtual ~IThreadPool() = default;
};

class IEvent : public IObject {
public:
    enum class Kind : int32_t { FileDescriptor = 0, Generic = 1 };
    virtual Kind GetKind() const = 0;
    virtual ~IEvent() = default;
};

// Readiness flags of a descriptor event.
enum EventFlags : uint32_t { kEventReadable = 1, kEventWritable = 2 };

class IFDEvent : public IEvent {
public:
    virtual int32_t GetDescriptor() const = 0;
    virtual int32_t GetTimeoutMilliseconds() const = 0;
    virtual uint32_t GetFlags() const = 0;
    // Flags seen ready when the event fired; 0 after a timeout.
    virtual uint32_t GetReadyFlags() const = 0;
    virtual ~IFDEvent() = default;
};

class IGenericEvent : public IEvent {
public:
    virtual void Signal() = 0;
    virtual ~IGenericEvent() = default;
};

using EventCallback = void (*)(IEvent* event, void* data, uint32_t readyFlags);

class IEventScheduler : public IObject {
public:
    virtual AutoRefPtr<IFDEvent> CreateFDEvent(EventCallback callback, void* data, int32_t descriptor,
                                               int32_t timeoutMilliseconds, uint32_t flags) = 0;
    virtual AutoRefPtr<IGenericEvent> CreateGenericEvent(EventCallback callback, void* data) = 0;
    virtual ~IEventScheduler() = default;
};

class IModuleInfo : public IObject {
public:
    virtual AutoRefPtr<IConfiguration> GetConfiguration() const = 0;
    virtual AutoRefPtr<ILogger> GetLogger() const = 0;
    virtual const char* GetModuleName() const = 0;
    virtual AutoRefPtr<IPolicy> GetPolicy() const = 0;
    virtual AutoRefPtr<ITelemetry> GetTelemetry() const = 0;
    virtual AutoRefPtr<IEventScheduler> GetEventScheduler() const = 0;
    virtual AutoRefPtr<IThreadPool> GetThreadPool() const = 0;
    virtual void* GetUserDefinedData() const = 0;
    virtual ~IModuleInfo() = default;
};

using ContextCallback = void (*)(IContext* context, void* data);

// The per-call execution context of a running script.
class IContext : public IObject {
public:
    virtual uint64_t GetTransactionId() const = 0;
    virtual void SetInterrupted() = 0;
    virtual void ClearInterrupted() = 0;
    virtual bool IsInterrupted() const = 0;
    virtual bool IsResuming() const = 0;
    // Suspends the running call until the event fires; the call is then run again.
    virtual bool InterruptWithEvent(AutoRefPtr<IEvent> event, AutoRefPtr<IObject> data) = 0;
    virtual bool InterruptWithJob(AutoRefPtr<IObject> job) = 0;
    virtual AutoRefPtr<IObject> GetInterruptionData() const = 0;
    virtual bool ExecuteAfterInterruption(ContextCallback callback, void* data) = 0;
    virtual void ExitExecution() = 0;
    // Per-call user data: kept across interruptions of the same call, dropped when it ends.
    virtual uint64_t GetUserDataId() const = 0;
    virtual bool SetUserData(const char* key, AutoRefPtr<IObject> value) = 0;
    virtual bool SetUserDataAsBoolean(const char* key, bool value) = 0;
    virtual bool SetUserDataAsNumber(const char* key, double value) = 0;
    virtual bool SetUserDataAsString(const char* key, const char* value, uint64_t size) = 0;
    virtual bool SetUserDataAsData(const char* key, AutoRefPtr<IDataRef> value) = 0;
    virtual bool SetUserDataAsStream(const char* key, AutoRefPtr<IStream> value) = 0;
    virtual AutoRefPtr<IObject> GetUserData(const char* key) const = 0;
    virtual bool GetUserDataAsBoolean(const char* key, bool& out) const = 0;
    virtual bool GetUserDataAsNumber(const char* key, double& out) const = 0;
    virtual bool GetUserDataAsString(const char* key, std::string& out) const = 0;
    virtual AutoRefPtr<IDataRef> GetUserDataAsData(const char* key) const = 0;
    virtual AutoRefPtr<IStream> GetUserDataAsStream(const char* key) const = 0;
    // Removes one entry, or every entry when key is null.
    virtual void ClearUserData(const char* key) = 0;
    // A fresh host value of the given type code (vectors start empty).
    virtual AutoRefPtr<IVariant> CreateInstance(uint32_t typeCode) = 0;
    // Type code of a type name ("Cryptography.Key", "VECTOR<...>"), 0 if unknown.
    virtual uint32_t FindType(const char* typeName) = 0;
    virtual AutoRefPtr<IEventScheduler> GetEventScheduler() const = 0;
    // Resolves a routine by script name and signature (result type first, then
    // the parameter types, then an empty terminator; count includes it).
    virtual RoutineEntry GetFunction(const char* name, uint32_t count, const char* const* signature,
                                     AutoRefPtr<IModuleInfo>* moduleInfo, void** opaque, int32_t flag) = 0;
    virtual RoutineEntry GetProcedure(const char* name, uint32_t count, const char* const* signature,
                                      AutoRefPtr<IModuleInfo>* moduleInfo, void** opaque, int32_t flag) = 0;
    virtual std::string GetRoutineName() const = 0;
    virtual int32_t GetLineNumber() const = 0;
    virtual std::string GetLineContent() const = 0;
    virtual std::string GetResourcePath() const = 0;
    virtual bool RegisterModuleCallbackFunction(const char* name, ContextCallback callback, void* data) = 0;
    virtual bool ExecuteCallbackFunctions(const char* name) = 0;
    virtual uint32_t CallRoutine(const char* name, uint32_t argumentCount, IVariant** arguments,
                                 IVariant* result) = 0;
    virtual uint32_t CallRoutineByTrigger(const char* trigger, uint32_t argumentCount, IVariant** arguments,
                                          IVariant* result) = 0;
    virtual std::vector<std::string> GetTriggers() const = 0;
    virtual std::string GetInitialTrigger() const = 0;
    virtual AutoRefPtr<IJSON> Serialize() const = 0;
    virtual bool UpdateContext(const IJSON* state) = 0;
    virtual AutoRefPtr<IPolicy> GetPolicy() const = 0;
    // Behind DebugLog (error false) and ErrorLog (error true).
    virtual void Log(bool error, const char* category, int32_t level, const char* message) = 0;
    virtual AutoRefPtr<IConfiguration> CreateConfiguration() = 0;
    virtual void TriggerErrorHandler(int32_t severity, const char* moduleNamespace, const char* errorId,
                                     const char* message) = 0;
    virtual bool HasError() const = 0;
    virtual int32_t GetErrorSeverity() const = 0;
    virtual std::string GetErrorModuleNamespace() const = 0;
    virtual std::string GetErrorId() const = 0;
    virtual std::string GetErrorMessage() const = 0;
    virtual AutoRefPtr<IJSON> GetStackedErrors() const = 0;
    virtual int32_t GetErrorLineNumber() const = 0;
    virtual std::string GetErrorLineContent() const = 0;
    virtual std::string GetErrorResourcePath() const = 0;
    virtual void ClearError() = 0;
    virtual void Cancel(const char* reason) = 0;
    virtual bool IsCanceled() const = 0;
    virtual std::string GetCancellationReason() const = 0;
    virtual AutoRefPtr<ITelemetry> GetTelemetry() const = 0;
    virtual AutoRefPtr<ICallStack> GetCallStack() const = 0;
    virtual AutoRefPtr<IModuleInfo> GetModuleInfo() const = 0;
    virtual uint64_t GetPolicyRevision() const = 0;
    virtual uint64_t MicrosecondsSinceStart() const = 0;
    virtual uint64_t CPUTimeMicroseconds() const = 0;
    virtual bool IsPreRun() const = 0;
    virtual void SetResultMaybe(bool maybe) = 0;
    virtual void SetResuming(bool resuming) = 0;
    virtual uint64_t GetPolicyStatementBlockId() const = 0;
    virtual ~IContext() = default;

    void DebugLog(const char* category, int32_t level, const std::string& message) {
        Log(false, category, level, message.c_str());
    }
    void ErrorLog(const char* category, const std::string& message) { Log(true, category, 0, message.c_str()); }
    // The call stack as text, innermost frame first.
    std::string PrintCallStack() const {
        std::string text;
        if (AutoRefPtr<ICallStack> stack = GetCallStack()) {
            for (uint32_t i = 0; i < stack->GetDepth(); ++i) {
                if (i) text += " <- ";
                text += stack->GetFrame(i);
            }
        }
        return text;
    }
};

inline AutoRefPtr<IJSON> IUserDefinedType::Serialize(IContext* context) const { return Interface_Serialize(context); }

}  // namespace Ombrix
