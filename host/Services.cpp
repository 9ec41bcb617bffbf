#include "Services.h"

#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <strings.h>

namespace Ombrix::Host {

void Logger::Record(LogLine line) {
    std::lock_guard lock(mutex_);
    if (verbose_)
        std::fprintf(stderr, "[%s] %s: %s\n", line.error ? "error" : "debug", line.category.c_str(),
                     line.message.c_str());
    lines_.push_back(std::move(line));
}

void Logger::DebugLog(const char* category, int32_t level, const char* message, int32_t, IContext*) {
    Record({false, category ? category : "", level, message ? message : ""});
}

void Logger::ErrorLog(const char* category, const char* message, int32_t, IContext*) {
    Record({true, category ? category : "", 0, message ? message : ""});
}

std::vector<LogLine> Logger::Lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

const std::string* Configuration::Find(const char* key) const {
    if (!key) return nullptr;
    auto it = values_.find(key);
    return it == values_.end() ? nullptr : &it->second;
}

bool Configuration::GetBoolean(const char* key, bool defaultValue) const {
    const std::string* value = Find(key);
    if (!value) return defaultValue;
    for (const char* yes : {"true", "1", "yes", "on"})
        if (strcasecmp(value->c_str(), yes) == 0) return true;
    for (const char* no : {"false", "0", "no", "off"})
        if (strcasecmp(value->c_str(), no) == 0) return false;
    return defaultValue;
}

int64_t Configuration::GetInteger(const char* key, int64_t defaultValue) const {
    const std::string* value = Find(key);
    if (!value || value->empty()) return defaultValue;
    char* end = nullptr;
    const long long parsed = std::strtoll(value->c_str(), &end, 10);
    return *end == '\0' ? parsed : defaultValue;
}

double Configuration::GetReal(const char* key, double defaultValue) const {
    const std::string* value = Find(key);
    if (!value || value->empty()) return defaultValue;
    char* end = nullptr;
    const double parsed = std::strtod(value->c_str(), &end);
    return *end == '\0' ? parsed : defaultValue;
}

std::string Configuration::GetString(const char* key, const char* defaultValue) const {
    const std::string* value = Find(key);
    return value ? *value : std::string(defaultValue ? defaultValue : "");
}

std::vector<std::string> Configuration::GetAllMatchingKeys(const char* prefix) const {
    std::vector<std::string> keys;
    const std::string start = prefix ? prefix : "";
    for (auto it = values_.lower_bound(start); it != values_.end() && it->first.compare(0, start.size(), start) == 0; ++it)
        keys.push_back(it->first);
    return keys;
}

short FDEvent::PollEvents() const {
    short events = 0;
    if (flags_ & kEventReadable) events |= POLLIN;
    if (flags_ & kEventWritable) events |= POLLOUT;
    return events;
}

uint32_t FDEvent::ReadyFlags(short revents) const {
    uint32_t ready = 0;
    if (revents & (POLLIN | POLLHUP | POLLERR)) ready |= flags_ & kEventReadable;
    if (revents & (POLLOUT | POLLHUP | POLLERR)) ready |= flags_ & kEventWritable;
    if (!ready && (revents & POLLNVAL)) ready = flags_;
    return ready;
}

void FDEvent::Fire(uint32_t ready) {
    ready_ = ready;
    if (callback_) callback_(this, data_, ready_);
}

AutoRefPtr<IFDEvent> EventScheduler::CreateFDEvent(EventCallback callback, void* data, int32_t descriptor,
                                                   int32_t timeoutMilliseconds, uint32_t flags) {
    if (descriptor < 0 || !(flags & (kEventReadable | kEventWritable))) return nullptr;
    return AutoRefPtr<IFDEvent>(new FDEvent(callback, data, descriptor, timeoutMilliseconds, flags));
}

}  // namespace Ombrix::Host
