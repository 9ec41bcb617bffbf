// Provider implementations fetched once for the legacy algorithm objects that
// EVP_get_digestbyname / EVP_get_cipherbyname return. Handing the fetched
// object to EVP_DigestInit_ex / EVP_CipherInit_ex spares OpenSSL its implicit
// fetch (and the method-store lock) on every call; the fetch made here is the
// same one OpenSSL would make, with the current default properties.
#pragma once

#include <openssl/evp.h>

namespace Cryptography {

// The fetched implementation of a legacy digest, or the digest itself when
// there is nothing to fetch or the fetch fails (OpenSSL then fails the same
// way it always did). Thread-safe; never adds an error-queue entry. When
// given, *plain is set when a fetched implementation is returned and FIPS mode
// was off when it was fetched.
const EVP_MD* FetchedDigest(const EVP_MD* md, bool* plain = nullptr) noexcept;
const EVP_CIPHER* FetchedCipher(const EVP_CIPHER* cipher) noexcept;

// The "HMAC" MAC fetched with the default properties, or null when it cannot
// be fetched.
EVP_MAC* FetchedHmac() noexcept;

// Starts a new generation of fetches: called whenever the module changes the
// default properties (FIPS on or off). Older fetches stay alive until the
// module is unloaded, so a call still using one is safe.
void DefaultPropertiesChanged() noexcept;

}  // namespace Cryptography
