#include "Prompt.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include <editline/readline.h>

#include "Interrupt.h"
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
// Entries of a table shown before "...", and how deep nested tables are shown.
constexpr int kShownItems = 32;
constexpr int kShownDepth = 2;

struct FreeLine {
    void operator()(char* line) const { std::free(line); }
};
using LineText = std::unique_ptr<char, FreeLine>;

enum class Read { Line, End, Interrupted };

// Reads one line. Ctrl-C drops what was typed.
Read ReadLine(const char* prompt, std::string& out) {
    std::fflush(stdout);
    ReadingLine();
    LineText line(readline(prompt));
    if (TakeLineInterrupt()) {
        std::fputs("^C\n", stdout);
        return Read::Interrupted;
    }
    if (!line) return Read::End;
    out = line.get();
    return Read::Line;
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
// and the whole text in `text`; `read` tells when input ended or Ctrl-C came
// inside a statement.
int Compile(lua_State* L, std::string first, std::string& text, Read& read) {
    const std::string expression = "return " + first;
    text = first;
    if (luaL_loadbuffer(L, expression.data(), expression.size(), kChunkName) == LUA_OK) return LUA_OK;
    lua_pop(L, 1);
    for (;;) {
        const int status = luaL_loadbuffer(L, text.data(), text.size(), kChunkName);
        if (!Incomplete(L, status)) return status;
        std::string more;
        read = ReadLine(kMorePrompt, more);
        if (read != Read::Line) return status;  // the incomplete statement's error
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

// Appends the string on top of the stack to the string in slot.
void Append(lua_State* L, int slot) {
    lua_pushvalue(L, slot);
    lua_insert(L, -2);
    lua_concat(L, 2);
    lua_replace(L, slot);
}

void AppendLiteral(lua_State* L, int slot, const char* text) {
    lua_pushstring(L, text);
    Append(L, slot);
}

// Pushes a Data buffer as Data.fromhex("..."), or by its size and first
// bytes when it is long.
void PushDataShown(lua_State* L, const Ombrix::IDataRef* data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    char head[kShownBytes * 2 + 1];
    size_t used = 0;
    try {  // a buffer without contiguous bytes is read through a work area
        Ombrix::ForEachChunk(data, kShownBytes, [&](const char* bytes, uint64_t length) {
            for (uint64_t i = 0; i < length && used < kShownBytes * 2; ++i) {
                const auto byte = static_cast<unsigned char>(bytes[i]);
                head[used++] = kDigits[byte >> 4];
                head[used++] = kDigits[byte & 15];
            }
            return used < kShownBytes * 2;
        });
    } catch (const std::exception&) {
    }
    head[used] = '\0';
    const uint64_t size = data->GetSize();
    if (size <= kShownBytes)
        lua_pushfstring(L, "Data.fromhex(\"%s\")", head);
    else
        lua_pushfstring(L, "Data(%I bytes: %s...)", static_cast<lua_Integer>(size), head);
}

// Pushes the string at index in double quotes, escaped as Lua reads it.
void PushQuoted(lua_State* L, int index) {
    size_t length = 0;
    const char* text = lua_tolstring(L, index, &length);
    luaL_Buffer buffer;
    luaL_buffinit(L, &buffer);
    luaL_addchar(&buffer, '"');
    for (size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            luaL_addchar(&buffer, '\\');
            luaL_addchar(&buffer, static_cast<char>(c));
        } else if (c == '\n') {
            luaL_addstring(&buffer, "\\n");
        } else if (c < 0x20 || c == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\%03u", c);
            luaL_addstring(&buffer, escape);
        } else {
            luaL_addchar(&buffer, static_cast<char>(c));
        }
    }
    luaL_addchar(&buffer, '"');
    luaL_pushresult(&buffer);
}

bool IsName(lua_State* L, int index) {
    if (lua_type(L, index) != LUA_TSTRING) return false;
    size_t length = 0;
    const char* text = lua_tolstring(L, index, &length);
    if (length == 0 || std::isdigit(static_cast<unsigned char>(text[0]))) return false;
    for (size_t i = 0; i < length; ++i)
        if (!std::isalnum(static_cast<unsigned char>(text[i])) && text[i] != '_') return false;
    return true;
}

void PushShown(lua_State* L, int index, int depth);

// Appends the separator before a table entry; false, after appending "...",
// once kShownItems entries are shown.
bool NextEntry(lua_State* L, int line, int& shown) {
    if (shown == kShownItems) {
        AppendLiteral(L, line, ", ...");
        ++shown;
        return false;
    }
    if (shown++) AppendLiteral(L, line, ", ");
    return true;
}

// Pushes a table without a metatable as {...}: its sequence, then its other
// fields (in no particular order).
void PushTable(lua_State* L, int index, int depth) {
    lua_pushliteral(L, "{");
    const int line = lua_gettop(L);
    int shown = 0;
    const auto length = static_cast<lua_Integer>(lua_rawlen(L, index));
    for (lua_Integer i = 1; i <= length && NextEntry(L, line, shown); ++i) {
        lua_rawgeti(L, index, i);
        PushShown(L, -1, depth);
        lua_remove(L, -2);
        Append(L, line);
    }
    lua_pushnil(L);
    while (shown <= kShownItems && lua_next(L, index)) {  // key, value
        if (lua_isinteger(L, -2) && lua_tointeger(L, -2) >= 1 && lua_tointeger(L, -2) <= length) {
            lua_pop(L, 1);
            continue;
        }
        if (!NextEntry(L, line, shown)) {
            lua_pop(L, 2);
            break;
        }
        if (IsName(L, -2)) {
            lua_pushvalue(L, -2);
        } else {
            PushShown(L, -2, depth);
            lua_pushfstring(L, "[%s]", lua_tostring(L, -1));
            lua_remove(L, -2);
        }
        Append(L, line);
        AppendLiteral(L, line, " = ");
        PushShown(L, -1, depth);
        Append(L, line);
        lua_pop(L, 1);  // the value; the key stays for lua_next
    }
    AppendLiteral(L, line, "}");
}

// Pushes how the prompt shows the value at index: Data buffers by their
// bytes, plain tables by their contents (nested ones to kShownDepth levels),
// strings inside them quoted, anything else as tostring gives it (JSON text,
// type names). May raise: a __tostring may fail.
void PushShown(lua_State* L, int index, int depth) {
    index = lua_absindex(L, index);
    luaL_checkstack(L, 8, "showing a value");
    if (const Ombrix::IDataRef* data = ToData(L, index)) return PushDataShown(L, data);
    if (depth > 0 && lua_type(L, index) == LUA_TSTRING) return PushQuoted(L, index);
    if (lua_type(L, index) == LUA_TTABLE && depth < kShownDepth) {
        if (!lua_getmetatable(L, index)) return PushTable(L, index, depth + 1);
        lua_pop(L, 1);
    }
    luaL_tolstring(L, index, nullptr);
}

// The line of shown values (the arguments), run protected.
int FormatResults(lua_State* L) {
    const int count = lua_gettop(L);
    lua_pushliteral(L, "");
    const int line = lua_gettop(L);
    for (int i = 1; i <= count; ++i) {
        if (i > 1) AppendLiteral(L, line, "\t");
        PushShown(L, i, 0);
        Append(L, line);
    }
    AppendLiteral(L, line, "\n");
    return 1;
}

void ShowResults(lua_State* L, int base) {
    const int count = lua_gettop(L) - base + 1;
    if (count <= 0) return;
    lua_pushcfunction(L, FormatResults);
    lua_insert(L, base);
    if (lua_pcall(L, count, 1, 0) != LUA_OK) {
        ShowError(L);
        return;
    }
    size_t length = 0;
    const char* text = lua_tolstring(L, -1, &length);
    std::fwrite(text, 1, length, stdout);
    std::fflush(stdout);
    lua_pop(L, 1);
}

}  // namespace

bool WantsPrompt(bool interactive, bool hasChunk) {
    return interactive || (!hasChunk && isatty(STDIN_FILENO));
}

int RunPrompt(lua_State* L, lua_CFunction messageHandler, const std::string& banner) {
    rl_readline_name = "ombrix";
    const std::string historyFile = HistoryFile();
    stifle_history(kHistoryLines);
    if (!historyFile.empty()) read_history(historyFile.c_str());
    if (isatty(STDIN_FILENO)) std::printf("%s\nCtrl-D ends the session.\n", banner.c_str());
    // Keys come through ReadKey, which Ctrl-C interrupts; the editor leaves
    // SIGINT to us.
    rl_catch_signals = 0;
    rl_getc_function = ReadKey;
    BeginInterrupts(L);

    lua_pushcfunction(L, messageHandler);
    const int handler = lua_gettop(L);
    std::string first;
    for (Read read = ReadLine(kPrompt, first); read != Read::End; read = ReadLine(kPrompt, first)) {
        if (read == Read::Interrupted) continue;
        std::string text;
        int status = Compile(L, first, text, read);
        if (read == Read::Interrupted) {
            lua_settop(L, handler);
            continue;
        }
        if (text.find_first_not_of(" \t") != std::string::npos) add_history(text.c_str());
        RunningCode();
        if (status == LUA_OK) status = lua_pcall(L, 0, LUA_MULTRET, handler);
        ReadingLine();  // a Ctrl-C from here on drops the next line
        if (TakeCodeInterrupt()) std::fputs("\n", stdout);  // after the terminal's ^C
        if (status == LUA_OK)
            ShowResults(L, handler + 1);
        else
            ShowError(L);
        lua_settop(L, handler);
        if (read == Read::End) break;
    }
    EndInterrupts();
    lua_settop(L, handler - 1);
    if (isatty(STDIN_FILENO)) std::putchar('\n');
    std::fflush(stdout);
    if (!historyFile.empty()) write_history(historyFile.c_str());
    return EXIT_SUCCESS;
}

}  // namespace OmbrixTool
