// One owner per OpenSSL handle: std::unique_ptr with the matching free function.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace OpenSSL {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* handle) const noexcept {
        Free(handle);
    }
};

template <class T, auto Free>
using Owned = std::unique_ptr<T, Deleter<Free>>;

using BioPtr = Owned<BIO, &BIO_free_all>;
using BigNumPtr = Owned<BIGNUM, &BN_free>;
using CipherContextPtr = Owned<EVP_CIPHER_CTX, &EVP_CIPHER_CTX_free>;
using MdContextPtr = Owned<EVP_MD_CTX, &EVP_MD_CTX_free>;
using MacContextPtr = Owned<EVP_MAC_CTX, &EVP_MAC_CTX_free>;
using PKeyPtr = Owned<EVP_PKEY, &EVP_PKEY_free>;
using PKeyContextPtr = Owned<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;
using ParamBuilderPtr = Owned<OSSL_PARAM_BLD, &OSSL_PARAM_BLD_free>;
using ParamsPtr = Owned<OSSL_PARAM, &OSSL_PARAM_free>;
using DecoderContextPtr = Owned<OSSL_DECODER_CTX, &OSSL_DECODER_CTX_free>;
using EncoderContextPtr = Owned<OSSL_ENCODER_CTX, &OSSL_ENCODER_CTX_free>;
using X509Ptr = Owned<X509, &X509_free>;
using X509ExtensionPtr = Owned<X509_EXTENSION, &X509_EXTENSION_free>;
using X509StorePtr = Owned<X509_STORE, &X509_STORE_free>;
using SslContextPtr = Owned<SSL_CTX, &SSL_CTX_free>;
using SslPtr = Owned<SSL, &SSL_free>;

}  // namespace OpenSSL
