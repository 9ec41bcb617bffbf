// OpenSSL::CHash: one message digest computation over an EVP_MD_CTX. Every
// OpenSSL failure becomes a std::runtime_error whose text the routines report.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>

#include "openssl/Handles.h"

namespace OpenSSL {

class CHash {
public:
    // Initialises a digest context for md; throws when md is null or
    // EVP_DigestInit_ex does not succeed.
    explicit CHash(const EVP_MD* md);
    virtual ~CHash();
    CHash(const CHash&) = delete;
    CHash& operator=(const CHash&) = delete;

    void Update(const void* data, size_t length);
    // Computes the digest once; later calls return the cached bytes. Either
    // out-parameter may be null.
    void Finalize(const unsigned char** digest, uint32_t* length);

private:
    MdContextPtr fCtx;
    const EVP_MD* fMd;  // borrowed from EVP_get_digestbyname
    // The digest once computed (fResultSize bytes; 0 until then). No digest
    // is longer than EVP_MAX_MD_SIZE, so it needs no allocation.
    unsigned char fResult[EVP_MAX_MD_SIZE];
    size_t fResultSize = 0;
    uint32_t fLength = 0;
    bool fInitialized = false;
};

}  // namespace OpenSSL
