#include "Interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cwchar>
#include <initializer_list>

namespace OmbrixTool {

namespace {

struct termios startTerminal;

// Runs once (SA_RESETHAND): the signal, blocked meanwhile, then ends the
// process with its default action.
void RestoreAndEnd(int signal) {
    const int saved = errno;
    tcsetattr(STDIN_FILENO, TCSANOW, &startTerminal);
    raise(signal);
    errno = saved;
}

}  // namespace

void RestoreTerminalWhenEnded() {
    if (tcgetattr(STDIN_FILENO, &startTerminal) != 0) return;  // not a terminal
    struct sigaction action {};
    action.sa_handler = RestoreAndEnd;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current {};
        if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
            sigaction(signal, &action, nullptr);
    }
}

namespace {

enum Phase : int { kOff, kReading, kRunning };

// Shared with the signal handler.
volatile sig_atomic_t phase = kOff;
volatile sig_atomic_t lineInterrupted = 0;
volatile sig_atomic_t codeInterrupted = 0;
std::atomic<lua_State*> mainState{nullptr};
std::atomic<lua_State*> runningThread{nullptr};
// The handler writes a byte here, so a key reader about to wait wakes up
// even when the signal came just before it started waiting.
int wakeup[2] = {-1, -1};

constexpr int kHookMask = LUA_MASKCALL | LUA_MASKRET | LUA_MASKCOUNT;

void Stop(lua_State* L, lua_Debug*) {
    lua_sethook(L, nullptr, 0, 0);
    luaL_error(L, "interrupted!");
}

void OnInterrupt(int) {
    const int saved = errno;
    if (phase == kReading) {
        lineInterrupted = 1;
        if (wakeup[1] >= 0 && ::write(wakeup[1], "", 1) < 0) {
            // The pipe is full: a wake-up is pending already.
        }
    } else if (phase == kRunning) {
        codeInterrupted = 1;
        // lua_sethook is one of the few Lua calls a signal handler may make.
        if (lua_State* L = mainState.load()) lua_sethook(L, Stop, kHookMask, 1);
        if (lua_State* thread = runningThread.load()) lua_sethook(thread, Stop, kHookMask, 1);
        // Until the hook has run, a second Ctrl-C ends the process.
        std::signal(SIGINT, SIG_DFL);
    }
    errno = saved;
}

void Install() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a blocked read returns, so the key reader sees Ctrl-C
    sigaction(SIGINT, &action, nullptr);
}

void ClearHook(lua_State* L) {
    if (L && lua_gethook(L) == Stop) lua_sethook(L, nullptr, 0, 0);
}

void DrainWakeup() {
    char bytes[64];
    while (wakeup[0] >= 0 && ::read(wakeup[0], bytes, sizeof bytes) > 0) {
    }
}

}  // namespace

void BeginInterrupts(lua_State* L) {
    mainState = L;
    if (wakeup[0] < 0 && ::pipe2(wakeup, O_CLOEXEC | O_NONBLOCK) != 0) wakeup[0] = wakeup[1] = -1;
    phase = kRunning;
    Install();
}

void EndInterrupts() {
    phase = kOff;
    std::signal(SIGINT, SIG_DFL);
    ClearHook(mainState.exchange(nullptr));
    for (int& end : wakeup) {
        if (end >= 0) ::close(end);
        end = -1;
    }
    lineInterrupted = 0;
}

void ReadingLine() {
    phase = kReading;
    Install();  // again: a Ctrl-C while code ran may have left the default
    ClearHook(mainState.load());  // a Ctrl-C that came as the code ended is dropped
}

void RunningCode() {
    codeInterrupted = 0;
    phase = kRunning;
}

bool TakeCodeInterrupt() {
    const bool interrupted = codeInterrupted;
    codeInterrupted = 0;
    return interrupted;
}

bool TakeLineInterrupt() {
    if (!lineInterrupted) return false;
    lineInterrupted = 0;
    DrainWakeup();
    return true;
}

int ReadKey(FILE*) {
    // One character in the locale's encoding, as the line editor's own reader
    // takes it: bytes that do not form one are dropped.
    char bytes[MB_LEN_MAX];
    size_t count = 0;
    for (;;) {
        if (lineInterrupted) return EOF;
        pollfd watched[2] = {{STDIN_FILENO, POLLIN, 0}, {wakeup[0], POLLIN, 0}};
        if (::poll(watched, wakeup[0] >= 0 ? 2 : 1, -1) < 0) {
            if (errno == EINTR) continue;
            return EOF;
        }
        if (watched[1].revents && !lineInterrupted) DrainWakeup();  // left from an earlier line
        if (!watched[0].revents) continue;
        char byte = 0;
        const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) return EOF;
        bytes[count++] = byte;
        std::mbstate_t state{};
        wchar_t character = 0;
        const size_t used = std::mbrtowc(&character, bytes, count, &state);
        if (used == static_cast<size_t>(-2) && count < sizeof bytes) continue;
        count = 0;
        if (used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2)) continue;
        return static_cast<int>(character);
    }
}

RunningThread::RunningThread(lua_State* thread) noexcept : thread_(thread), previous_(runningThread.exchange(thread)) {}

RunningThread::~RunningThread() {
    runningThread = previous_;
    ClearHook(thread_);
}

}  // namespace OmbrixTool
