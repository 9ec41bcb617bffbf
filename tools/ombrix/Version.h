// `ombrix --version`: the command, the modules it loaded and the libraries in use.
#pragma once

#include <string>

#include "Engine.h"

namespace OmbrixTool {

// Lines of the form
//   ombrix 1.0.0 (Lua 5.4.6)
//   Cryptography 1.23.7.0 /usr/lib/x86_64-linux-gnu/ombrix/modules/libCryptography.so
//   OpenSSL 3.0.17 1 Jul 2025
// with one module line per loaded module, each ending in a newline.
std::string VersionText(const Ombrix::Host::Engine& engine);

// "ombrix 1.0.0 (Lua 5.4.6, OpenSSL 3.0.17) with Cryptography 1.23.7.0": the prompt's greeting.
std::string Banner(const Ombrix::Host::Engine& engine);

}  // namespace OmbrixTool
