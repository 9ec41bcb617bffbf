#include "NetModule.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "Ombrix/Routine.h"

namespace Ombrix::Host {

namespace {

constexpr char kNetNamespace[] = "Net";

void Report(IContext* context, const char* id, const std::string& message) {
    if (context) context->TriggerErrorHandler(kSeverityError, kNetNamespace, id, message.c_str());
}
void InvalidArgument(IContext* context, const std::string& message) {
    Report(context, "Error.Ombrix.InvalidArgument", message);
}
void FunctionError(IContext* context, const std::string& message) {
    Report(context, "Error.Ombrix.FunctionError", message);
}

std::string ErrorText(int error) {
    char buffer[256];
    // GNU strerror_r may return a static text instead of filling the buffer.
    return strerror_r(error, buffer, sizeof buffer);
}

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// connect(2) that survives EINTR: the connection then completes in the
// background, so wait for it and collect its outcome.
int ConnectDescriptor(int descriptor, const sockaddr* address, socklen_t length) {
    if (::connect(descriptor, address, length) == 0) return 0;
    if (errno != EINTR) return errno;
    pollfd entry{descriptor, POLLOUT, 0};
    while (::poll(&entry, 1, -1) < 0)
        if (errno != EINTR) return errno;
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errno;
    return error;
}

double Connect(std::string host, int32_t port, IContext* context) {
    if (port < 1 || port > 65535) {
        InvalidArgument(context, "Invalid port " + std::to_string(port));
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (const int status = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found); status != 0) {
        const std::string reason = status == EAI_SYSTEM ? ErrorText(errno) : gai_strerror(status);
        FunctionError(context, "Cannot resolve \"" + host + "\": " + reason);
        return -1;
    }
    AddressList addresses(found, &freeaddrinfo);
    int lastError = EHOSTUNREACH;
    for (const addrinfo* a = addresses.get(); a; a = a->ai_next) {
        const int descriptor = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (descriptor < 0) {
            lastError = errno;
            continue;
        }
        lastError = ConnectDescriptor(descriptor, a->ai_addr, a->ai_addrlen);
        if (lastError == 0) return descriptor;
        ::close(descriptor);
    }
    FunctionError(context, "Cannot connect to " + host + " port " + service + ": " + ErrorText(lastError));
    return -1;
}

bool CheckSocket(int32_t socket, IContext* context) {
    if (socket >= 0) return true;
    InvalidArgument(context, "Invalid socket " + std::to_string(socket));
    return false;
}

void SetBlocking(int32_t socket, bool blocking, IContext* context) {
    if (!CheckSocket(socket, context)) return;
    int flags = ::fcntl(socket, F_GETFL);
    if (flags >= 0) {
        flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
        if (::fcntl(socket, F_SETFL, flags) == 0) return;
    }
    FunctionError(context, "Cannot change the blocking mode of socket " + std::to_string(socket) + ": " +
                               ErrorText(errno));
}

// Looks once at the socket, waiting at most the given time (negative: without
// limit). An error or hang-up on the socket counts as ready: the next read or
// write reports it.
bool Poll(int32_t socket, short events, int32_t milliseconds, IContext* context) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    pollfd entry{socket, events, 0};
    int remaining = milliseconds;
    for (;;) {
        const int ready = ::poll(&entry, 1, remaining);
        if (ready >= 0) break;
        if (errno != EINTR) {
            FunctionError(context, "Cannot wait on socket " + std::to_string(socket) + ": " + ErrorText(errno));
            return false;
        }
        if (milliseconds >= 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            remaining = left > 0 ? static_cast<int>(left) : 0;
        }
    }
    if (entry.revents & POLLNVAL) {
        FunctionError(context, "Cannot wait on socket " + std::to_string(socket) + ": " + ErrorText(EBADF));
        return false;
    }
    return (entry.revents & (events | POLLERR | POLLHUP)) != 0;
}

// Suspends the call on an event for the socket, so the host's event loop runs
// other calls meanwhile; false when the host offers no event.
bool Suspend(int32_t socket, uint32_t flags, int32_t milliseconds, IContext* context) {
    AutoRefPtr<IEventScheduler> scheduler = context ? context->GetEventScheduler() : nullptr;
    AutoRefPtr<IFDEvent> event =
        scheduler ? scheduler->CreateFDEvent(nullptr, nullptr, socket, milliseconds < 0 ? -1 : milliseconds, flags)
                  : nullptr;
    return event && context->InterruptWithEvent(AutoRefPtr<IEvent>(std::move(event)), nullptr);
}

// Waits until the socket is readable ("r"), writable ("w") or either ("rw"),
// at most the given time (a negative time waits without limit). The wait
// itself is the host's: the call suspends on an event for the socket and,
// run again once the socket is ready or the time has passed, looks at the
// socket without waiting.
bool Wait(int32_t socket, std::string mode, int32_t milliseconds, IContext* context) {
    if (!CheckSocket(socket, context)) return false;
    short events = 0;
    if (mode == "r")
        events = POLLIN;
    else if (mode == "w")
        events = POLLOUT;
    else if (mode == "rw")
        events = POLLIN | POLLOUT;
    else {
        InvalidArgument(context, "Invalid wait mode \"" + mode + "\" (expected \"r\", \"w\" or \"rw\")");
        return false;
    }
    const bool resuming = context && context->IsResuming();
    if (milliseconds != 0 && !resuming) {
        const uint32_t flags = (events & POLLIN ? kEventReadable : 0u) | (events & POLLOUT ? kEventWritable : 0u);
        if (Suspend(socket, flags, milliseconds, context)) return false;  // the host runs the call again
    }
    return Poll(socket, events, resuming ? 0 : milliseconds, context);
}

void Close(int32_t socket, IContext* context) {
    if (!CheckSocket(socket, context)) return;
    // On Linux the descriptor is released even when close reports EINTR, so
    // it is never retried.
    if (::close(socket) != 0 && errno != EINTR)
        FunctionError(context, "Cannot close socket " + std::to_string(socket) + ": " + ErrorText(errno));
}

template <auto Impl>
uint32_t Entry(uint32_t count, IVariant** arguments, IVariant* result, void* opaque, IContext* context) {
    return Invoke<Impl, kNetNamespace>(count, arguments, result, opaque, context);
}

}  // namespace

std::vector<HostRoutine> NetModuleRoutines() {
    return {
        {"FUNCTION NUMBER Net.Connect (STRING,NUMBER)", &Entry<&Connect>},
        {"PROCEDURE Net.SetBlocking (NUMBER,BOOLEAN)", &Entry<&SetBlocking>},
        {"FUNCTION BOOLEAN Net.Wait (NUMBER,STRING,NUMBER)", &Entry<&Wait>},
        {"PROCEDURE Net.Close (NUMBER)", &Entry<&Close>},
    };
}

}  // namespace Ombrix::Host
