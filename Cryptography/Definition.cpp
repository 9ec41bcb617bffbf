#include "Definition.h"

#include <initializer_list>
#include <string>
#include <string_view>

#include "Routine.h"

namespace Cryptography {

namespace {

struct Declaration {
    const char* head;  // "FUNCTION <result>", "PROCEDURE" or "TYPE"
    const char* name;
    std::initializer_list<const char*> parameters;  // an empty name leaves an unnamed position
    const char* entry;
    bool parenthesisAttached = false;  // "Name()" instead of "Name ()"
};

constexpr bool kAttached = true;

// In the order the host receives them.
const Declaration kDeclarations[] = {
    {"FUNCTION DATAREF", "Cryptography.Encrypt", {"STRING", "DATAREF", "STRING"}, "ombrix_module_EncryptDataRef"},
    {"FUNCTION STRING", "Cryptography.EncryptAndAuth", {"DATAREF", "STRING", "STRING", "STRING", "NUMBER"}, "ombrix_module_EncryptAndAuthDataRef"},
    {"FUNCTION STRING", "Cryptography.DecryptAndVerify", {"STRING", "STRING", "STRING", "STRING", "NUMBER"}, "ombrix_module_DecryptAndVerify"},
    {"FUNCTION DATAREF", "Cryptography.DataRefDecryptAndVerify", {"STRING", "STRING", "STRING", "STRING", "NUMBER"}, "ombrix_module_DataRefDecryptAndVerify"},
    {"FUNCTION DATAREF", "Cryptography.Hash", {"STRING", "STRING"}, "ombrix_module_Hash"},
    {"FUNCTION DATAREF", "Cryptography.Hash", {"STRING", "DATAREF"}, "ombrix_module_HashData"},
    {"FUNCTION DATAREF", "Cryptography.HashFile", {"STRING", "STRING"}, "ombrix_module_HashFile"},
    {"FUNCTION STRING", "Cryptography.Lookup3Hash", {"STRING"}, "ombrix_module_Lookup3Hash"},
    {"FUNCTION DATAREF", "Cryptography.Sign", {"STRING", "DATAREF", "STRING"}, "ombrix_module_Sign"},
    {"FUNCTION DATAREF", "Cryptography.Sign", {"DATAREF", "DATAREF", "STRING"}, "ombrix_module_SignData"},
    {"FUNCTION DATAREF", "Cryptography.Sign", {"STRING", "Cryptography.Key", "STRING"}, "ombrix_module_Sign2"},
    {"FUNCTION DATAREF", "Cryptography.Encrypt", {"STRING", "DATAREF", "STRING", "DATAREF"}, "ombrix_module_EncryptDataRefInitVec"},
    {"FUNCTION DATAREF", "Cryptography.Sign", {"DATAREF", "Cryptography.Key", "STRING"}, "ombrix_module_SignData2"},
    {"FUNCTION BOOLEAN", "Cryptography.VerifySignature", {"STRING", "DATAREF", "STRING", "DATAREF"}, "ombrix_module_VerifySignature"},
    {"FUNCTION BOOLEAN", "Cryptography.VerifySignature", {"DATAREF", "DATAREF", "STRING", "DATAREF"}, "ombrix_module_VerifySignatureData"},
    {"FUNCTION BOOLEAN", "Cryptography.VerifySignature", {"STRING", "Cryptography.Key", "STRING", "DATAREF"}, "ombrix_module_VerifySignature2"},
    {"FUNCTION BOOLEAN", "Cryptography.VerifySignature", {"DATAREF", "Cryptography.Key", "STRING", "DATAREF"}, "ombrix_module_VerifySignatureData2"},
    {"FUNCTION DATAREF", "Cryptography.HMAC", {"STRING", "STRING", "STRING"}, "ombrix_module_CreateHMACFromString"},
    {"FUNCTION DATAREF", "Cryptography.HMAC", {"STRING", "STRING", "DATAREF"}, "ombrix_module_CreateHMACFromDataRef"},
    {"FUNCTION DATAREF", "Cryptography.PKCS5PBKDF2HMAC", {"DATAREF", "DATAREF", "NUMBER", "STRING", "NUMBER"}, "ombrix_module_CreatePKCS5_PBKDF2_HMAC"},
    {"FUNCTION DATAREF", "Cryptography.CreateRandomBytes", {"NUMBER"}, "ombrix_module_CreateRandomBytes"},
    {"FUNCTION STRING", "Cryptography.CreateRandomBytesAsString", {"NUMBER"}, "ombrix_module_CreateRandomBytesAsString"},
    {"FUNCTION DATAREF", "Cryptography.Encrypt", {"STRING", "STRING", "STRING"}, "ombrix_module_Encrypt"},
    {"FUNCTION STRING", "Cryptography.CreateRandomBytesAsBase64String", {"NUMBER"}, "ombrix_module_CreateRandomBytesAsBase64String"},
    {"FUNCTION STRING", "Cryptography.CreateRandomBytesAsBase64URLString", {"NUMBER"}, "ombrix_module_CreateRandomBytesAsBase64URLString"},
    {"FUNCTION STRING", "Cryptography.CreateRandomUUID", {}, "ombrix_module_CreateRandomBytesAsUUID"},
    {"FUNCTION JSON", "Cryptography.PEMToJson", {"STRING"}, "ombrix_module_PEMToJson"},
    {"FUNCTION NUMBER", "Cryptography.FIPSMode", {}, "ombrix_module_GetFIPSMode", kAttached},
    {"FUNCTION BOOLEAN", "Cryptography.FIPSSelfTestFailed", {}, "ombrix_module_FIPSSelfTestFailed", kAttached},
    {"FUNCTION Cryptography.Key", "Cryptography.GeneratePublicKey", {"STRING", "STRING"}, "ombrix_module_GeneratePublicKey"},
    {"FUNCTION Cryptography.Key", "Cryptography.GenerateRSAKey", {"NUMBER"}, "ombrix_module_GenerateRSAKey"},
    {"FUNCTION Cryptography.Key", "Cryptography.GenerateECKey", {}, "ombrix_module_GenerateECKey"},
    {"FUNCTION Cryptography.Key", "Cryptography.GenerateX25519Key", {}, "ombrix_module_GenerateX25519Key"},
    {"FUNCTION DATAREF", "Cryptography.Encrypt", {"STRING", "STRING", "STRING", "DATAREF"}, "ombrix_module_EncryptInitVec"},
    {"FUNCTION Cryptography.Key", "Cryptography.KeyFromPEM", {"STRING"}, "ombrix_module_PEMToKey"},
    {"FUNCTION Cryptography.Key", "Cryptography.KeyFromPEM", {"STRING", "STRING"}, "ombrix_module_EncryptedPEMToKey"},
    {"FUNCTION STRING", "Cryptography.ToPEM", {"Cryptography.Key"}, "ombrix_module_KeyToPEM"},
    {"FUNCTION STRING", "Cryptography.PublicToPEM", {"Cryptography.Key"}, "ombrix_module_PublicKeyToPEM"},
    {"FUNCTION BOOLEAN", "Cryptography.IsValid", {"Cryptography.Key"}, "ombrix_module_KeyIsValid"},
    {"FUNCTION NUMBER", "Cryptography.GetKeyLength", {"Cryptography.Key"}, "ombrix_module_GetKeyLength"},
    {"FUNCTION DATAREF", "Cryptography.EncodePrivateKey", {"Cryptography.Key"}, "ombrix_module_EncodePrivateKey"},
    {"FUNCTION DATAREF", "Cryptography.EncodePublicKey", {"Cryptography.Key"}, "ombrix_module_EncodePublicKey"},
    {"FUNCTION STRING", "Cryptography.GetKeyType", {"Cryptography.Key"}, "ombrix_module_GetKeyType"},
    {"FUNCTION STRING", "Cryptography.GetExponent", {"Cryptography.Key"}, "ombrix_module_GetExponent"},
    {"FUNCTION DATAREF", "Cryptography.DataRefDecrypt", {"STRING", "DATAREF", "STRING"}, "ombrix_module_DataRefDecrypt"},
    {"FUNCTION STRING", "Cryptography.GetModulus", {"Cryptography.Key"}, "ombrix_module_GetModulus"},
    {"FUNCTION Cryptography.X509", "Cryptography.CreateX509", {}, "ombrix_module_CreateX509"},
    {"FUNCTION Cryptography.X509", "Cryptography.X509FromPEM", {"STRING"}, "ombrix_module_PEMToX509"},
    {"FUNCTION VECTOR<Cryptography.X509>", "Cryptography.X509VectorFromPEM", {"STRING"}, "ombrix_module_PEMToX509Vec"},
    {"FUNCTION Cryptography.X509", "Cryptography.X509FromDER", {"DATAREF"}, "ombrix_module_DERToX509"},
    {"FUNCTION Cryptography.X509", "Cryptography.X509FetchFromServer", {"STRING", "NUMBER", ""}, "ombrix_module_RetrieveCertificateFromHost"},
    {"FUNCTION STRING", "Cryptography.ToPEM", {"Cryptography.X509"}, "ombrix_module_X509ToPEM"},
    {"FUNCTION DATAREF", "Cryptography.ToDER", {"Cryptography.X509"}, "ombrix_module_X509ToDER"},
    {"FUNCTION BOOLEAN", "Cryptography.ValidateKey", {"Cryptography.X509", "Cryptography.Key"}, "ombrix_module_CheckPrivateKey"},
    {"FUNCTION BOOLEAN", "Cryptography.HasIssued", {"Cryptography.X509", "Cryptography.X509"}, "ombrix_module_HasIssued"},
    {"FUNCTION DATAREF", "Cryptography.DataRefDecrypt", {"STRING", "DATAREF", "STRING", "DATAREF"}, "ombrix_module_DataRefDecryptInitVec"},
    {"FUNCTION BOOLEAN", "Cryptography.IsValid", {"Cryptography.X509"}, "ombrix_module_CertIsValid"},
    {"FUNCTION Cryptography.Key", "Cryptography.GetPublicKeyFromCert", {"Cryptography.X509"}, "ombrix_module_GetPublicKeyFromCert"},
    {"FUNCTION STRING", "Cryptography.GetDigestFromCert", {"STRING", "Cryptography.X509"}, "ombrix_module_GetDigestFromCert"},
    {"FUNCTION NUMBER", "Cryptography.GetValidNotBefore", {"Cryptography.X509"}, "ombrix_module_X509NotBefore"},
    {"FUNCTION NUMBER", "Cryptography.GetValidNotAfter", {"Cryptography.X509"}, "ombrix_module_X509NotAfter"},
    {"FUNCTION VECTOR<STRING>", "Cryptography.GetPurpose", {"Cryptography.X509"}, "ombrix_module_X509Purpose"},
    {"FUNCTION Cryptography.SSL", "Cryptography.CreateSSL", {"JSON"}, "ombrix_module_CreateSSL"},
    {"FUNCTION BOOLEAN", "Cryptography.Connect", {"Cryptography.SSL", "NUMBER"}, "ombrix_module_SSLConnect"},
    {"FUNCTION STRING", "Cryptography.Error", {"Cryptography.SSL"}, "ombrix_module_SSLGetError"},
    {"FUNCTION NUMBER", "Cryptography.State", {"Cryptography.SSL"}, "ombrix_module_SSLGetState"},
    {"FUNCTION STRING", "Cryptography.Decrypt", {"STRING", "DATAREF", "STRING"}, "ombrix_module_Decrypt"},
    {"FUNCTION NUMBER", "Cryptography.Read", {"Cryptography.SSL", "DATAREF", "NUMBER"}, "ombrix_module_SSLRead"},
    {"FUNCTION NUMBER", "Cryptography.Write", {"Cryptography.SSL", "STRING", "NUMBER"}, "ombrix_module_SSLWrite"},
    {"PROCEDURE", "Cryptography.SetVersion", {"Cryptography.X509", "NUMBER"}, "ombrix_module_X509SetVersion"},
    {"PROCEDURE", "Cryptography.SetSerialNumber", {"Cryptography.X509", "NUMBER"}, "ombrix_module_X509SetSerialNumber"},
    {"PROCEDURE", "Cryptography.SetSubjectName", {"Cryptography.X509", "STRING", "STRING"}, "ombrix_module_X509SetSubjectName"},
    {"PROCEDURE", "Cryptography.SetIssuerName", {"Cryptography.X509", "STRING", "STRING"}, "ombrix_module_X509SetIssuerName"},
    {"PROCEDURE", "Cryptography.AdjustNotBefore", {"Cryptography.X509", "NUMBER"}, "ombrix_module_X509AdjustNotBefore"},
    {"PROCEDURE", "Cryptography.AdjustNotAfter", {"Cryptography.X509", "NUMBER"}, "ombrix_module_X509AdjustNotAfter"},
    {"PROCEDURE", "Cryptography.SetKey", {"Cryptography.X509", "Cryptography.Key"}, "ombrix_module_X509SetKey"},
    {"PROCEDURE", "Cryptography.Sign", {"Cryptography.X509", "Cryptography.Key"}, "ombrix_module_X509Sign"},
    {"FUNCTION STRING", "Cryptography.Decrypt", {"STRING", "DATAREF", "STRING", "DATAREF"}, "ombrix_module_DecryptInitVec"},
    {"PROCEDURE", "Cryptography.AddExtension", {"Cryptography.X509", "STRING", "STRING"}, "ombrix_module_X509AddExtension"},
    {"FUNCTION VECTOR<DATAREF>", "Cryptography.EncryptAEADCHACHA20POLY1305", {"STRING", "STRING", "DATAREF", "STRING"}, "ombrix_module_Encrypt_AEAD_CHACHA20_POLY1305"},
    {"FUNCTION STRING", "Cryptography.DecryptAEADCHACHA20POLY1305", {"DATAREF", "DATAREF", "STRING", "DATAREF", "STRING"}, "ombrix_module_Decrypt_AEAD_CHACHA20_POLY1305"},
    {"FUNCTION DATAREF", "Cryptography.DecryptAEADCHACHA20POLY1305Data", {"DATAREF", "DATAREF", "STRING", "DATAREF", "STRING"}, "ombrix_module_Decrypt_AEAD_CHACHA20_POLY1305DataRef"},
    {"PROCEDURE", "Cryptography.Shutdown", {"Cryptography.SSL"}, "ombrix_module_SSLShutdown"},
    {"FUNCTION DATAREF", "Cryptography.BytesToKey", {"STRING", "STRING", "DATAREF", "DATAREF", "NUMBER"}, "ombrix_module_BytesToKey"},
    {"FUNCTION STRING", "Cryptography.EncryptAndAuth", {"STRING", "STRING", "STRING", "STRING", "NUMBER"}, "ombrix_module_EncryptAndAuth"},
    {"TYPE", "Cryptography.Key", {}, "ombrix_module_CreateCryptographyKey"},
    {"TYPE", "Cryptography.SSL", {}, "ombrix_module_CreateCryptographySSL"},
    {"TYPE", "Cryptography.X509", {}, "ombrix_module_CreateCryptographyX509"},
};

// Appends each declaration in the pieces the host grammar is made of: every
// parameter is followed by a comma, which normalisation later removes.
std::string Assemble() {
    std::string text;
    for (const Declaration& d : kDeclarations) {
        const std::string_view head = d.head;
        text += ' ';
        text += head;
        text += ' ';
        text += d.name;
        if (head == "TYPE") {
            text += " : ";
        } else {
            text += d.parenthesisAttached ? "(" : " (";
            for (const char* parameter : d.parameters) (text += parameter) += ',';
            text += ") : ";
        }
        text += d.entry;
    }
    return text;
}

// One left-to-right pass; the search resumes after each replacement. No
// replacement is longer than its pattern, so the text is compacted in place and
// its buffer never moves: a pointer handed out earlier stays valid.
void ReplaceAll(std::string& text, std::string_view pattern, std::string_view replacement) {
    size_t write = 0;
    for (size_t read = 0; read < text.size();) {
        if (text.compare(read, pattern.size(), pattern) == 0) {
            text.replace(write, replacement.size(), replacement.data(), replacement.size());
            write += replacement.size();
            read += pattern.size();
        } else {
            text[write++] = text[read++];
        }
    }
    text.resize(write);
}

std::string& DefinitionText() {
    static std::string text = Assemble();
    return text;
}

// Built during static initialisation, before the host can ask for it.
[[maybe_unused]] const bool kBuilt = !DefinitionText().empty();

}  // namespace

const char* ModuleDefinition() {
    std::string& text = DefinitionText();
    ReplaceAll(text, ",,", ",");
    ReplaceAll(text, ",)", ")");
    ReplaceAll(text, "(,", "( ");
    ReplaceAll(text, "( ,", "( ");
    return text.c_str();
}

}  // namespace Cryptography

CRYPTOGRAPHY_EXPORT const char* GetModuleDefinition() { return Cryptography::ModuleDefinition(); }
