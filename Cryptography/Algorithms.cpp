#include "Algorithms.h"

#include "Errors.h"

namespace Cryptography {

const EVP_CIPHER* FindCipher(const std::string& name, Ombrix::IContext* context) {
    const EVP_CIPHER* cipher = EVP_get_cipherbyname(name.c_str());
    if (!cipher) Report(context, kFunctionError, "Cipher \"" + name + "\" not supported.");
    return cipher;
}

const EVP_MD* FindDigest(const std::string& name, Ombrix::IContext* context, char closingMark) {
    const EVP_MD* digest = EVP_get_digestbyname(name.c_str());
    if (!digest) Report(context, kFunctionError, "Digest \"" + name + "\" not supported" + closingMark);
    return digest;
}

}  // namespace Cryptography
