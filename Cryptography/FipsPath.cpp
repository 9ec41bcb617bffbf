#include "Module.h"

const char* Cryptography::FipsEnabledPath() { return "/proc/sys/crypto/fips_enabled"; }
