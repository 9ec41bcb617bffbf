// OpenSSL's default CA locations, shared between TLS sessions. Loading the
// system CA bundle into a new context costs milliseconds per session; the
// store built once is handed to every context that asks for the defaults
// alone, and built again as soon as the default CA file or directory (or the
// environment variables naming them) change.
#pragma once

#include <openssl/ssl.h>

namespace Cryptography {

// What SSL_CTX_set_default_verify_paths does for a context whose own store is
// still empty: the context then trusts the default CA file and directory.
// Like that call it leaves the error queue empty. False only when no store
// could be made.
bool UseDefaultVerifyPaths(SSL_CTX* context);

}  // namespace Cryptography
