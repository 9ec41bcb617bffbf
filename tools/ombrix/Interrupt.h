// Ctrl-C at the prompt, as the stock Lua prompt treats it and more: while a
// line is read it drops the line and the prompt comes back; while code runs a
// hook raises "interrupted!" at the next Lua instruction, so during a routine
// (or any C function) it takes effect when that returns, and a second Ctrl-C
// before then ends the process. Variables are kept. Outside the prompt
// (scripts, -e) SIGINT keeps its default meaning: nothing here is installed.
#pragma once

#include <lua.hpp>

#include <cstdio>

namespace OmbrixTool {

// Takes SIGINT over for the prompt of the state L until EndInterrupts.
void BeginInterrupts(lua_State* L);
void EndInterrupts();

// Outside the prompt: a SIGINT, SIGTERM or SIGHUP that ends the process
// (their default meaning, kept) first puts back the terminal settings
// standard input had here, so a script stopped while it read with echo off
// (or a program it started did) leaves the terminal as it found it. Signals
// the process inherited as ignored stay ignored.
void RestoreTerminalWhenEnded();

// Reading a line: Ctrl-C then makes ReadKey, the line editor's key reader
// (rl_getc_function), return EOF, and TakeLineInterrupt tell it apart from
// the end of input (true once per Ctrl-C).
void ReadingLine();
int ReadKey(FILE* stream);
bool TakeLineInterrupt();

// Running code: from here until ReadingLine, Ctrl-C stops it.
// TakeCodeInterrupt then tells whether Ctrl-C came meanwhile.
void RunningCode();
bool TakeCodeInterrupt();

// Marks the coroutine a task runs in while it runs, so that Ctrl-C stops
// Lua code running there too. Nests.
class RunningThread {
public:
    explicit RunningThread(lua_State* thread) noexcept;
    ~RunningThread();
    RunningThread(const RunningThread&) = delete;
    RunningThread& operator=(const RunningThread&) = delete;

private:
    lua_State* thread_;
    lua_State* previous_;
};

}  // namespace OmbrixTool
