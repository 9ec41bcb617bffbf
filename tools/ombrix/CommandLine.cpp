#include "CommandLine.h"

#include <cstring>

namespace OmbrixTool {

const char kUsage[] =
    "usage: ombrix [-m MODULE]... [-c KEY=VALUE]... [-v] [-i] [-e CODE | SCRIPT.lua [ARGS...]]\n"
    "  -m MODULE     load a module: a path (with a '/'), or a name such as Cryptography\n"
    "                looked for in $OMBRIX_MODULE_PATH, the installed module folder and\n"
    "                beside ombrix (default: Cryptography)\n"
    "  -c KEY=VALUE  set an engine configuration key before modules load\n"
    "  -e CODE       run CODE; further arguments go to arg[1], arg[2], ...\n"
    "  -v            echo the engine's log to standard error\n"
    "  -i            start the prompt (after the script or -e CODE, if any)\n"
    "  --version     show the versions of ombrix, the loaded modules and OpenSSL\n"
    "  -h            show this help\n"
    "With neither -e nor a script, the prompt starts when standard input is a terminal;\n"
    "otherwise the script is read from standard input.\n"
    "Exit status: 0 on success, 1 on an uncaught script error, 2 on a usage or load error.\n";

CommandLine ParseCommandLine(int argc, const char* const* argv) {
    CommandLine line;
    int i = 1;
    // An option's value follows it, or is glued to it ("-mlib.so").
    auto value = [&](const char* option) -> const char* {
        if (option[2]) return option + 2;
        if (i + 1 < argc) return argv[++i];
        line.error = std::string("option ") + option + " needs a value";
        return nullptr;
    };
    for (; i < argc && line.error.empty(); ++i) {
        const char* a = argv[i];
        if (a[0] != '-' || std::strcmp(a, "-") == 0) break;  // the script
        if (std::strcmp(a, "--") == 0) {
            ++i;
            break;
        }
        switch (a[1]) {
            case 'm':
                if (const char* v = value(a)) line.modules.emplace_back(v);
                break;
            case 'c':
                if (const char* v = value(a)) {
                    const char* equals = std::strchr(v, '=');
                    if (!equals || equals == v)
                        line.error = std::string("option -c needs KEY=VALUE, got '") + v + "'";
                    else
                        line.configuration[std::string(v, equals)] = equals + 1;
                }
                break;
            case 'e':
                if (const char* v = value(a)) line.code = line.code ? *line.code + "\n" + v : std::string(v);
                break;
            case 'v':
            case 'h':
            case 'i':
                if (a[2]) {
                    line.error = std::string("unknown option ") + a;
                    break;
                }
                (a[1] == 'v' ? line.verbose : a[1] == 'h' ? line.help : line.interactive) = true;
                break;
            default:
                if (std::strcmp(a, "--help") == 0)
                    line.help = true;
                else if (std::strcmp(a, "--version") == 0)
                    line.version = true;
                else
                    line.error = std::string("unknown option ") + a;
        }
    }
    if (!line.error.empty()) return line;
    // With -e every remaining word is an argument; otherwise the first is the script.
    if (!line.code && i < argc) {
        line.script = argv[i];
        line.scriptIndex = i++;
    }
    for (; i < argc; ++i) line.arguments.emplace_back(argv[i]);
    return line;
}

}  // namespace OmbrixTool
