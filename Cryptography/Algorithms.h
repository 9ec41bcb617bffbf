// Cipher and digest lookup by the name a script gives; an unknown name is
// reported on the context with the name in double quotes.
#pragma once

#include <openssl/evp.h>

#include <string>

#include "Ombrix/Interfaces.h"

namespace Cryptography {

// Reports `Cipher "<name>" not supported.` when OpenSSL does not know the name.
const EVP_CIPHER* FindCipher(const std::string& name, Ombrix::IContext* context);

// Reports `Digest "<name>" not supported` followed by the routine family's own
// closing mark ('!' or '.') when OpenSSL does not know the name.
const EVP_MD* FindDigest(const std::string& name, Ombrix::IContext* context, char closingMark);

}  // namespace Cryptography
