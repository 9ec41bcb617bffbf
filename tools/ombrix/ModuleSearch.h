// Where `ombrix` finds its modules. A word with a '/' is a path, taken as
// given; a bare name ("Cryptography", or a file name "libCryptography.so")
// is looked for in, in order: the folders of OMBRIX_MODULE_PATH
// (colon-separated), the installed module folder relative to the command's
// own binary (so a tree unpacked under any prefix works), and the folder of
// the binary (the build tree).
#pragma once

#include <string>
#include <vector>

namespace OmbrixTool {

// The module loaded when no -m is given.
inline constexpr char kDefaultModule[] = "Cryptography";

// The folders a bare name is looked for in, in order. modulePath is the value
// of OMBRIX_MODULE_PATH (null when unset); its empty entries are skipped.
std::vector<std::string> ModuleDirectories(const std::string& executable, const char* modulePath);

// The file name a bare name stands for: "Cryptography" -> "libCryptography.so";
// a name already ending in ".so" is kept.
std::string ModuleFileName(const std::string& name);

// The path to load for a -m word. Throws std::runtime_error naming the
// module and every folder searched when a bare name is found nowhere.
std::string LocateModule(const std::string& word, const std::vector<std::string>& directories);
// The same, with the folders of this process (its binary, OMBRIX_MODULE_PATH).
std::string LocateModule(const std::string& word, const std::string& executable);

}  // namespace OmbrixTool
