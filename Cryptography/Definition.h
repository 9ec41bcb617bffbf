// The module definition text: every routine and type the module declares.
#pragma once

namespace Cryptography {

// The normalised text; normalising again changes nothing.
const char* ModuleDefinition();

}  // namespace Cryptography
