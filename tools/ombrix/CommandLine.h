// The command line of `ombrix`:
//   ombrix [-m MODULE]... [-c KEY=VALUE]... [-v] [-i] [-e CODE | SCRIPT.lua [ARGS...]]
//   ombrix [-m MODULE]... --version
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace OmbrixTool {

struct CommandLine {
    std::vector<std::string> modules;                // -m paths or bare names, in order
    std::map<std::string, std::string> configuration;  // -c KEY=VALUE
    std::optional<std::string> code;                 // -e (several are joined by newlines)
    std::optional<std::string> script;               // "-" reads standard input
    std::vector<std::string> arguments;              // for the script, or for -e code
    int scriptIndex = 0;                             // position of the script in argv, 0 when none
    bool verbose = false;                            // -v: echo the engine's log to stderr
    bool help = false;
    bool interactive = false;                        // -i: the prompt, after the script or -e code if any
    bool version = false;                            // --version
    std::string error;                               // set when the line cannot be used
};

CommandLine ParseCommandLine(int argc, const char* const* argv);

extern const char kUsage[];

}  // namespace OmbrixTool
