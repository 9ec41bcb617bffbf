#include "Codec.h"

#include <array>

#include "Ombrix/Data.h"

namespace Cryptography::Codec {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

// The standard alphabet followed by the URL-safe one.
constexpr char kAlphabets[129] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr const char* kStandard = kAlphabets;
constexpr const char* kUrlSafe = kAlphabets + 64;

constexpr uint8_t kNotInAlphabet = 64;

// Character code -> 6-bit value, 64 for characters outside the alphabet.
constexpr std::array<uint8_t, 256> ReverseTable(const char* alphabet) {
    std::array<uint8_t, 256> table{};
    for (auto& entry : table) entry = kNotInAlphabet;
    for (uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(alphabet[i])] = i;
    return table;
}
constexpr auto kStandardReverse = ReverseTable(kStandard);
constexpr auto kUrlSafeReverse = ReverseTable(kUrlSafe);

// Encodes whole groups of three and a padded tail; the URL form drops the padding.
std::string Encode(const unsigned char* in, size_t length, const char* alphabet, bool pad) {
    std::string out(((length + 2) / 3) * 4, '=');
    size_t o = 0, i = 0;
    for (; i + 3 <= length; i += 3) {
        const uint32_t group = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
        out[o++] = alphabet[group >> 18];
        out[o++] = alphabet[(group >> 12) & 63];
        out[o++] = alphabet[(group >> 6) & 63];
        out[o++] = alphabet[group & 63];
    }
    if (const size_t rest = length - i) {
        const uint32_t group = (uint32_t{in[i]} << 16) | (rest == 2 ? uint32_t{in[i + 1]} << 8 : 0);
        out[o++] = alphabet[group >> 18];
        out[o++] = alphabet[(group >> 12) & 63];
        if (rest == 2) out[o++] = alphabet[(group >> 6) & 63];
        if (!pad) out.resize(o);
    }
    return out;
}

std::string Decode(std::string_view text, const std::array<uint8_t, 256>& reverse) {
    std::string out;
    out.reserve(text.size() / 4 * 3 + 2);
    uint32_t group = 0;
    int count = 0;
    for (const char c : text) {
        if (c == '\r' || c == '\n') continue;
        const uint8_t value = reverse[static_cast<unsigned char>(c)];
        if (value == kNotInAlphabet) break;  // "=" or a foreign character ends the data
        group = (group << 6) | value;
        if (++count == 4) {
            out += static_cast<char>(group >> 16);
            out += static_cast<char>((group >> 8) & 0xff);
            out += static_cast<char>(group & 0xff);
            group = 0;
            count = 0;
        }
    }
    if (count == 2) out += static_cast<char>(group >> 4);
    if (count == 3) {
        out += static_cast<char>(group >> 10);
        out += static_cast<char>((group >> 2) & 0xff);
    }
    return out;
}

template <class Encoder>
std::string EncodeData(const Ombrix::IDataRef* data, Encoder&& encode) {
    if (!data) return {};
    Ombrix::DataBytes bytes(data);
    return encode(bytes.view());
}

}  // namespace

std::string HexEncode(const void* bytes, size_t length) {
    const auto* in = static_cast<const unsigned char*>(bytes);
    std::string out(length * 2, '\0');
    for (size_t i = 0; i < length; ++i) {
        out[2 * i] = kHexDigits[in[i] >> 4];
        out[2 * i + 1] = kHexDigits[in[i] & 15];
    }
    return out;
}

std::string Base64Encode(const void* bytes, size_t length) {
    return Encode(static_cast<const unsigned char*>(bytes), length, kStandard, true);
}

std::string Base64Encode(const Ombrix::IDataRef* data) {
    return EncodeData(data, [](std::string_view b) { return Base64Encode(b.data(), b.size()); });
}

std::string Base64URLEncode(std::string_view bytes) {
    return Encode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), kUrlSafe, false);
}

std::string Base64URLEncode(const Ombrix::IDataRef* data) {
    return EncodeData(data, [](std::string_view b) { return Base64URLEncode(b); });
}

std::string Base64Decode(std::string_view text) { return Decode(text, kStandardReverse); }

std::string Base64URLDecode(std::string_view text) { return Decode(text, kUrlSafeReverse); }

}  // namespace Cryptography::Codec
