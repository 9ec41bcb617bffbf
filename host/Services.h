// Host services handed to modules: logger, configuration, policy, event
// scheduler and the module info that carries them.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Ombrix/Interfaces.h"

namespace Ombrix::Host {

struct LogLine {
    bool error;
    std::string category;
    int32_t level;
    std::string message;
};

// Records every line; echoes them to stderr when verbose.
class Logger final : public UseCounted<ILogger> {
public:
    void DebugLog(const char* category, int32_t level, const char* message, int32_t line, IContext* context) override;
    void ErrorLog(const char* category, const char* message, int32_t line, IContext* context) override;
    bool CreateUserDefinedLog(const char*) override { return true; }
    bool DeleteUserDefinedLog(const char*) override { return true; }

    void SetVerbose(bool verbose) { verbose_ = verbose; }
    std::vector<LogLine> Lines() const;
    void Record(LogLine line);

private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
    bool verbose_ = false;
};

// Key/value configuration, settable by the embedder.
class Configuration final : public UseCounted<IConfiguration> {
public:
    bool GetBoolean(const char* key, bool defaultValue) const override;
    int64_t GetInteger(const char* key, int64_t defaultValue) const override;
    double GetReal(const char* key, double defaultValue) const override;
    std::string GetString(const char* key, const char* defaultValue) const override;
    uint64_t GetSize() const override { return values_.size(); }
    std::vector<std::string> GetAllMatchingKeys(const char* prefix) const override;

    void Set(const std::string& key, const std::string& value) { values_[key] = value; }

private:
    const std::string* Find(const char* key) const;

    std::map<std::string, std::string> values_;
};

class Policy final : public UseCounted<IPolicy> {
public:
    Policy(std::string name, uint64_t identity) : name_(std::move(name)), identity_(identity) {}
    const char* GetName() const override { return name_.c_str(); }
    uint64_t GetIdentity() const override { return identity_; }

private:
    std::string name_;
    uint64_t identity_;
};

class FDEvent final : public UseCounted<IFDEvent> {
public:
    FDEvent(EventCallback callback, void* data, int32_t descriptor, int32_t timeout, uint32_t flags)
        : callback_(callback), data_(data), descriptor_(descriptor), timeout_(timeout), flags_(flags) {}

    Kind GetKind() const override { return Kind::FileDescriptor; }
    int32_t GetDescriptor() const override { return descriptor_; }
    int32_t GetTimeoutMilliseconds() const override { return timeout_; }
    uint32_t GetFlags() const override { return flags_; }
    uint32_t GetReadyFlags() const override { return ready_; }

    // What the event loop saw: the ready flags (0 after a timeout) are kept
    // for GetReadyFlags and handed to the callback.
    void Fire(uint32_t ready);
    // poll(2) events for the flags, and the flags a poll result makes ready.
    // A descriptor in error or hung up is ready for whatever was asked, so the
    // resumed call sees the error.
    short PollEvents() const;
    uint32_t ReadyFlags(short revents) const;

private:
    EventCallback callback_;
    void* data_;
    int32_t descriptor_;
    int32_t timeout_;
    uint32_t flags_;
    uint32_t ready_ = 0;
};

class EventScheduler final : public UseCounted<IEventScheduler> {
public:
    AutoRefPtr<IFDEvent> CreateFDEvent(EventCallback callback, void* data, int32_t descriptor,
                                       int32_t timeoutMilliseconds, uint32_t flags) override;
    AutoRefPtr<IGenericEvent> CreateGenericEvent(EventCallback, void*) override { return nullptr; }
};

class ModuleInfo final : public UseCounted<IModuleInfo> {
public:
    ModuleInfo(std::string name, AutoRefPtr<IConfiguration> configuration, AutoRefPtr<ILogger> logger,
               AutoRefPtr<IPolicy> policy, AutoRefPtr<IEventScheduler> scheduler)
        : name_(std::move(name)), configuration_(std::move(configuration)), logger_(std::move(logger)),
          policy_(std::move(policy)), scheduler_(std::move(scheduler)) {}

    AutoRefPtr<IConfiguration> GetConfiguration() const override { return configuration_; }
    AutoRefPtr<ILogger> GetLogger() const override { return logger_; }
    const char* GetModuleName() const override { return name_.c_str(); }
    AutoRefPtr<IPolicy> GetPolicy() const override { return policy_; }
    AutoRefPtr<ITelemetry> GetTelemetry() const override { return nullptr; }
    AutoRefPtr<IEventScheduler> GetEventScheduler() const override { return scheduler_; }
    AutoRefPtr<IThreadPool> GetThreadPool() const override { return nullptr; }
    void* GetUserDefinedData() const override { return nullptr; }

private:
    std::string name_;
    AutoRefPtr<IConfiguration> configuration_;
    AutoRefPtr<ILogger> logger_;
    AutoRefPtr<IPolicy> policy_;
    AutoRefPtr<IEventScheduler> scheduler_;
};

}  // namespace Ombrix::Host
