// Read-only certificate routines: the JSON description of a PEM certificate,
// digests, the public key, validity times, purposes, the issuer test, the
// presence test and the key-match test.
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <climits>
#include <ctime>

#include "Algorithms.h"
#include "Codec.h"
#include "HostImports.h"
#include "Key.h"
#include "Routine.h"
#include "X509Cert.h"
#include "openssl/NoPassphrase.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IContext;
using CertRef = AutoRefPtr<X509Cert>;
using KeyRef = AutoRefPtr<Key>;
using HostImports::JsonRef;

constexpr int kObjectTextBuffer = 1024;

// Everything written to a memory BIO.
std::string MemoryText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 && data ? std::string(data, static_cast<size_t>(size)) : std::string();
}

// An object identifier as text: the long name when known (unless numeric is
// asked for), else the dotted form.
std::string ObjectText(const ASN1_OBJECT* object, bool numeric) {
    char buffer[kObjectTextBuffer] = {};
    OBJ_obj2txt(buffer, sizeof buffer, object, numeric ? 1 : 0);
    buffer[sizeof buffer - 1] = '\0';
    return buffer;
}

std::string TimeText(const ASN1_TIME* time) {
    OpenSSL::BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) return {};
    ASN1_TIME_print(bio.get(), time);
    return MemoryText(bio.get());
}

// Uppercase hexadecimal, "-" for negative serials, "0" for zero; empty when
// the conversion fails.
std::string SerialText(const ASN1_INTEGER* serial) {
    OpenSSL::BigNumPtr number(ASN1_INTEGER_to_BN(serial, nullptr));
    if (!number) return {};
    char* hex = BN_bn2hex(number.get());
    if (!hex) return {};
    std::string text(hex);
    OPENSSL_free(hex);
    return text;
}

// SHA-256 of the DER certificate as "ab cd ..." (95 characters); empty when
// the digest cannot be made.
std::string Fingerprint(const X509* cert) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(cert, EVP_sha256(), digest, &length) != 1 || length != 32) return {};
    const std::string hex = Codec::HexEncode(digest, length);
    std::string text;
    text.reserve(length * 3 - 1);
    for (size_t i = 0; i < hex.size(); i += 2) {
        if (i) text += ' ';
        text.append(hex, i, 2);
    }
    return text;
}

// The printed extension value (raw octets when OpenSSL has no printer for it),
// without trailing line ends.
std::string ExtensionValue(X509_EXTENSION* extension) {
    OpenSSL::BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) return {};
    if (!X509V3_EXT_print(bio.get(), extension, 0, 0))
        ASN1_STRING_print(bio.get(), X509_EXTENSION_get_data(extension));
    std::string text = MemoryText(bio.get());
    const size_t end = text.find_last_not_of("\r\n");
    text.erase(end == std::string::npos ? 0 : end + 1);
    return text;
}

std::string ExtensionName(X509_EXTENSION* extension) {
    const ASN1_OBJECT* object = X509_EXTENSION_get_object(extension);
    const int nid = OBJ_obj2nid(object);
    if (nid == NID_undef) return ObjectText(object, true);
    const char* name = OBJ_nid2ln(nid);
    return name ? name : "";
}

// {attribute long name: raw value, ...}; a repeated attribute keeps its last value.
JsonRef NameObject(const X509_NAME* name, IContext* context) {
    JsonRef object = HostImports::StringToJson(context, "{}");
    const int count = X509_NAME_entry_count(name);
    for (int i = 0; object && i < count; ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
        const std::string key = ObjectText(X509_NAME_ENTRY_get_object(entry), false);
        object = HostImports::JSONSetString(
            context, object, key,
            std::string_view(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                             static_cast<size_t>(ASN1_STRING_length(value))));
    }
    return object;
}

// [{"name": ..., "value": ...}, ...] in certificate order.
JsonRef ExtensionArray(const X509* cert, int count, IContext* context) {
    JsonRef array = HostImports::JSONCreateEmptyArray(context);
    for (int i = 0; array && i < count; ++i) {
        X509_EXTENSION* extension = X509_get_ext(cert, i);
        JsonRef entry = HostImports::StringToJson(context, "{}");
        if (entry) entry = HostImports::JSONSetString(context, entry, "name", ExtensionName(extension));
        if (entry) entry = HostImports::JSONSetString(context, entry, "value", ExtensionValue(extension));
        if (!entry) return nullptr;
        array = HostImports::JSONArrayAppendJSON(context, array, entry);
    }
    return array;
}

// Builds the description only through the host's JSON routines; the first
// one that fails (and reports) ends the build with a null result.
JsonRef PEMToJson(std::string text, IContext* context) {
    JsonRef document = HostImports::StringToJson(context, "{}");
    if (!document) return nullptr;

    OpenSSL::X509Ptr cert;
    {
        OpenSSL::BioPtr bio(BIO_new(BIO_s_mem()));
        if (!bio) return document;
        if (!text.empty() && BIO_write(bio.get(), text.data(), static_cast<int>(std::min<size_t>(text.size(), INT_MAX))) <= 0)
            return document;
        cert.reset(PEM_read_bio_X509(bio.get(), nullptr, OpenSSL::NoPassphrase, nullptr));
    }
    if (!cert) return document;
    const X509* x = cert.get();

    auto setJson = [&](const char* key, const JsonRef& value) {
        if (document && value) document = HostImports::JSONSetJson(context, document, key, value);
        else document = nullptr;
    };
    auto setString = [&](const char* key, const std::string& value) {
        if (document) document = HostImports::JSONSetString(context, document, key, value);
    };

    if (document) setJson("subject", NameObject(X509_get_subject_name(x), context));
    if (document) setJson("issuer", NameObject(X509_get_issuer_name(x), context));
    if (document) {
        const std::string serial = SerialText(X509_get0_serialNumber(x));
        if (!serial.empty()) setString("serial", serial);
    }
    if (document) setString("notBefore", TimeText(X509_get0_notBefore(x)));
    if (document) setString("notAfter", TimeText(X509_get0_notAfter(x)));
    if (document)
        document = HostImports::JSONSetUInt64(context, document, "version",
                                              static_cast<uint64_t>(X509_get_version(x) + 1));
    if (document) {
        const std::string fingerprint = Fingerprint(x);
        if (!fingerprint.empty()) setString("fingerprint", fingerprint);
    }
    if (document) {
        const char* algorithm = OBJ_nid2ln(X509_get_signature_nid(x));
        setString("signatureAlgorithm", algorithm ? algorithm : "");
    }
    if (const int count = X509_get_ext_count(x); document && count > 0)
        setJson("extension", ExtensionArray(x, count, context));
    return document;
}

std::string GetDigestFromCert(std::string digestName, CertRef cert, IContext* context) {
    if (!cert) {
        Report(context, kFunctionError, "Parameter cert not valid");
        return {};
    }
    const EVP_MD* digest = FindDigest(digestName, context, '.');
    if (!digest) return {};
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!cert->Get() || X509_digest(cert->Get(), digest, bytes, &length) != 1) {
        Report(context, kFunctionError, "Digest couldn't be created.");
        return {};
    }
    return Codec::HexEncode(bytes, length);
}

KeyRef GetPublicKeyFromCert(CertRef cert, IContext* context) {
    KeyRef key = Key::New(context);
    if (key && cert->Get()) key->Reset(X509_get_pubkey(cert->Get()), false);
    return key;
}

// Seconds since 1970 of an ASN.1 time text: YYMMDDHHMMSSZ when it has 13
// characters (years 70-99 are 19xx, 00-69 are 20xx), else YYYYMMDDHHMMSS
// followed by anything. Digits are not validated; positions beyond the text
// count as 0. -1 when there is no time, it is shorter than 12 characters, or
// the calendar conversion fails (timegm's own -1).
double TimeToSeconds(const ASN1_TIME* time) {
    if (!time) return -1;
    const int length = ASN1_STRING_length(time);
    if (length < 12) return -1;
    const unsigned char* text = ASN1_STRING_get0_data(time);
    auto twoDigits = [&](int at) {
        auto digit = [&](int i) { return i < length ? text[i] - '0' : 0; };
        return digit(at) * 10 + digit(at + 1);
    };
    std::tm calendar{};
    int at;
    if (length == 13) {
        const int year = twoDigits(0);
        calendar.tm_year = year < 70 ? year + 100 : year;
        at = 2;
    } else {
        calendar.tm_year = twoDigits(0) * 100 + twoDigits(2) - 1900;
        at = 4;
    }
    calendar.tm_mon = twoDigits(at) - 1;
    calendar.tm_mday = twoDigits(at + 2);
    calendar.tm_hour = twoDigits(at + 4);
    calendar.tm_min = twoDigits(at + 6);
    calendar.tm_sec = twoDigits(at + 8);
    calendar.tm_isdst = -1;
    return static_cast<double>(timegm(&calendar));
}

double GetValidNotBefore(CertRef cert) {
    return cert->Get() ? TimeToSeconds(X509_getm_notBefore(cert->Get())) : -1;
}

double GetValidNotAfter(CertRef cert) {
    return cert->Get() ? TimeToSeconds(X509_getm_notAfter(cert->Get())) : -1;
}

AutoRefPtr<Ombrix::IVectorGeneric> GetPurpose(CertRef cert, IContext* context) {
    AutoRefPtr<Ombrix::IVariant> holder = context ? context->CreateInstance(Ombrix::kTypeStringVector) : nullptr;
    AutoRefPtr<Ombrix::IVectorGeneric> purposes = holder ? holder->GetVector() : nullptr;
    if (!purposes) return nullptr;
    if (X509* x = cert->Get()) {
        if (X509_check_purpose(x, X509_PURPOSE_SSL_CLIENT, 0) == 1) purposes->AppendString("Client", 6);
        if (X509_check_purpose(x, X509_PURPOSE_SSL_SERVER, 0) == 1) purposes->AppendString("Server", 6);
        if (X509_check_ca(x) == 1) purposes->AppendString("CA", 2);
    }
    return purposes;
}

bool HasIssued(CertRef issuer, CertRef subject) {
    X509* issuing = issuer->Get();
    X509* issued = subject->Get();
    if (!issuing || !issued) return false;
    if (X509_check_issued(issuing, issued) != X509_V_OK) return false;
    if (X509_check_ca(issuing) < 1) return false;
    OpenSSL::PKeyPtr key(X509_get_pubkey(issuing));
    if (!key) return false;
    return X509_verify(issued, key.get()) > 0;
}

bool IsValid(CertRef cert) { return cert->IsValid(); }

bool ValidateKey(CertRef cert, KeyRef key) {
    if (!key || !key->PKey() || !cert->Get()) return false;
    return X509_check_private_key(cert->Get(), key->PKey()) != 0;
}

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(PEMToJson, &Cryptography::PEMToJson)
CRYPTOGRAPHY_ROUTINE(GetDigestFromCert, &Cryptography::GetDigestFromCert)
CRYPTOGRAPHY_ROUTINE(GetPublicKeyFromCert, &Cryptography::GetPublicKeyFromCert)
CRYPTOGRAPHY_ROUTINE(X509NotBefore, &Cryptography::GetValidNotBefore)
CRYPTOGRAPHY_ROUTINE(X509NotAfter, &Cryptography::GetValidNotAfter)
CRYPTOGRAPHY_ROUTINE(X509Purpose, &Cryptography::GetPurpose)
CRYPTOGRAPHY_ROUTINE(HasIssued, &Cryptography::HasIssued)
CRYPTOGRAPHY_ROUTINE(CertIsValid, &Cryptography::IsValid)
CRYPTOGRAPHY_ROUTINE(CheckPrivateKey, &Cryptography::ValidateKey)
