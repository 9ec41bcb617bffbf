#include "Prompt.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <editline/readline.h>

#include "LuaValues.h"
#include "Ombrix/Data.h"

namespace OmbrixTool {

namespace {

constexpr char kPrompt[] = "> ";
constexpr char kMorePrompt[] = ">> ";
constexpr char kChunkName[] = "=stdin";
constexpr int kHistoryLines = 1000;
// Data longer than this is shown by its size and first bytes.
constexpr uint64_t kShownBytes = 64;

struct FreeLine {
    void operator()(char* line) const { std::free(line); }
};
using LineText = std::unique_ptr<char, FreeLine>;

// Reads one line; false at end of input.
bool ReadLine(const char* prompt, std::string& out) {
    std::fflush(stdout);
    LineText line(readline(prompt));
    if (!line) return false;
    out = line.get();
    return true;
}

std::string HistoryFile() {
    const char* home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.ombrix_history" : std::string();
}

// A syntax error at the end of the text means the statement goes on.
bool Incomplete(lua_State* L, int status) {
    if (status != LUA_ERRSYNTAX) return false;
    size_t length = 0;
    const char* message = lua_tolstring(L, -1, &length);
    static constexpr char kEnd[] = "<eof>";
    constexpr size_t kEndLength = sizeof kEnd - 1;
    return message && length >= kEndLength && std::strcmp(message + length - kEndLength, kEnd) == 0;
}

// Compiles the text the user gives, starting with first: as an expression
// when it is one, else as a statement, reading more lines while the
// statement is incomplete. Leaves the function (or the error) on the stack
// and the whole text in `text`; `ended` is set when input ends inside a statement.
int Compile(lua_State* L, std::string first, std::string& text, bool& ended) {
    const std::string expression = "return " + first;
    text = first;
    if (luaL_loadbuffer(L, expression.data(), expression.size(), kChunkName) == LUA_OK) return LUA_OK;
    lua_pop(L, 1);
    for (;;) {
        const int status = luaL_loadbuffer(L, text.data(), text.size(), kChunkName);
        if (!Incomplete(L, status)) return status;
        std::string more;
        if (!ReadLine(kMorePrompt, more)) {
            ended = true;
            return status;  // the incomplete statement's error
        }
        lua_pop(L, 1);
        text += "\n" + more;
    }
}

void ShowError(lua_State* L) {
    const char* message = lua_tostring(L, -1);
    std::fflush(stdout);
    std::fprintf(stderr, "ombrix: %s\n", message ? message : "(error object is not a string)");
    std::fflush(stderr);
    lua_pop(L, 1);
}

void ShowResults(lua_State* L, int base) {
    const int top = lua_gettop(L);
    if (top < base) return;
    std::string line;
    for (int i = base; i <= top; ++i) {
        if (i > base) line += '\t';
        line += ShowValue(L, i);
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
    lua_settop(L, base - 1);
}

std::string Hex(const char* bytes, uint64_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(static_cast<size_t>(size) * 2);
    for (uint64_t i = 0; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    return hex;
}

std::string ShowData(const Ombrix::IDataRef* data) {
    const uint64_t size = data->GetSize();
    std::string head;
    Ombrix::ForEachChunk(data, kShownBytes, [&](const char* bytes, uint64_t length) {
        const uint64_t wanted = kShownBytes - head.size() / 2;
        head += Hex(bytes, std::min(length, wanted));
        return head.size() / 2 < kShownBytes;
    });
    if (size <= kShownBytes) return "Data.fromhex(\"" + head + "\")";
    return "Data(" + std::to_string(size) + " bytes: " + head + "...)";
}

}  // namespace

bool WantsPrompt(bool interactive, bool hasChunk) {
    return interactive || (!hasChunk && isatty(STDIN_FILENO));
}

std::string ShowValue(lua_State* L, int index) {
    index = lua_absindex(L, index);
    if (const Ombrix::IDataRef* data = ToData(L, index)) return ShowData(data);
    size_t length = 0;
    const char* text = luaL_tolstring(L, index, &length);  // __tostring: JSON text, type names, errors
    std::string shown(text, length);
    lua_pop(L, 1);
    return shown;
}

int RunPrompt(lua_State* L, lua_CFunction messageHandler, const std::string& banner) {
    rl_readline_name = "ombrix";
    const std::string historyFile = HistoryFile();
    stifle_history(kHistoryLines);
    if (!historyFile.empty()) read_history(historyFile.c_str());
    if (isatty(STDIN_FILENO)) std::printf("%s\nCtrl-D ends the session.\n", banner.c_str());

    lua_pushcfunction(L, messageHandler);
    const int handler = lua_gettop(L);
    std::string first;
    bool ended = false;
    while (!ended && ReadLine(kPrompt, first)) {
        std::string text;
        int status = Compile(L, first, text, ended);
        if (text.find_first_not_of(" \t") != std::string::npos) add_history(text.c_str());
        if (status == LUA_OK) status = lua_pcall(L, 0, LUA_MULTRET, handler);
        if (status == LUA_OK)
            ShowResults(L, handler + 1);
        else
            ShowError(L);
        lua_settop(L, handler);
    }
    lua_settop(L, handler - 1);
    if (isatty(STDIN_FILENO)) std::putchar('\n');
    std::fflush(stdout);
    if (!historyFile.empty()) write_history(historyFile.c_str());
    return EXIT_SUCCESS;
}

}  // namespace OmbrixTool
