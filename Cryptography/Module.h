// Registration state shared by the module's units.
#pragma once

namespace Cryptography {

// Path of the kernel's FIPS switch file; a separate unit so test builds can
// point it elsewhere.
const char* FipsEnabledPath();

}  // namespace Cryptography
