// The command line of `ombrix`:
//   ombrix [-m MODULE.so]... [-c KEY=VALUE]... [-v] [-e CODE | SCRIPT.lua [ARGS...]]
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace OmbrixTool {

struct CommandLine {
    std::vector<std::string> modules;                // -m, in order
    std::map<std::string, std::string> configuration;  // -c KEY=VALUE
    std::optional<std::string> code;                 // -e (several are joined by newlines)
    std::optional<std::string> script;               // "-" reads standard input
    std::vector<std::string> arguments;              // for the script, or for -e code
    int scriptIndex = 0;                             // position of the script in argv, 0 when none
    bool verbose = false;                            // -v: echo the engine's log to stderr
    bool help = false;
    std::string error;                               // set when the line cannot be used
};

CommandLine ParseCommandLine(int argc, const char* const* argv);

extern const char kUsage[];

}  // namespace OmbrixTool
