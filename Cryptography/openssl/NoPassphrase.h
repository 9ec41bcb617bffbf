// The pass-phrase callback for every OpenSSL read that has no password to
// offer. Without one, OpenSSL falls back to asking on the controlling
// terminal and waits there; this callback supplies nothing, so an encrypted
// input fails the same way with or without a terminal.
#pragma once

#include <cstddef>

#include <openssl/core.h>
#include <openssl/err.h>
#include <openssl/uierr.h>

namespace OpenSSL {

// pem_password_cb: no pass phrase. -1, not an empty one (0): with 0 OpenSSL
// would try the empty pass phrase. The error it leaves first in the queue is
// the one OpenSSL's own prompt leaves when it finds no input to read, so a
// failure reads the same with or without a terminal.
inline int NoPassphrase(char*, int, int, void*) {
    ERR_raise_data(ERR_LIB_UI, UI_R_PROCESSING_ERROR, "while reading strings");
    return -1;
}

// OSSL_PASSPHRASE_CALLBACK for the decoder API: no pass phrase (failure).
inline int NoDecoderPassphrase(char*, size_t, size_t* length, const OSSL_PARAM*, void*) {
    if (length) *length = 0;
    return 0;
}

}  // namespace OpenSSL
