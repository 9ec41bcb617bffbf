// Cryptography.Lookup3Hash: Bob Jenkins' lookup3 hashlittle2, read byte by
// byte with ASCII letters folded, written as unsigned decimal.
#include "Lookup3.h"

#include <string>

#include "Routine.h"

namespace Cryptography {

namespace {

constexpr uint32_t kPrimarySeed = 0x12459878;
constexpr uint32_t kSecondarySeed = 0x34464564;

constexpr uint32_t Rot(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }

constexpr uint32_t Fold(unsigned char byte) { return byte >= 'A' && byte <= 'Z' ? byte | 0x20u : byte; }

// Four folded bytes, little-endian, of which only the first count exist.
uint32_t Word(const unsigned char* p, size_t count) {
    uint32_t word = 0;
    for (size_t i = 0; i < count && i < 4; ++i) word |= Fold(p[i]) << (8 * i);
    return word;
}

void Mix(uint32_t& a, uint32_t& b, uint32_t& c) {
    a -= c; a ^= Rot(c, 4);  c += b;
    b -= a; b ^= Rot(a, 6);  a += c;
    c -= b; c ^= Rot(b, 8);  b += a;
    a -= c; a ^= Rot(c, 16); c += b;
    b -= a; b ^= Rot(a, 19); a += c;
    c -= b; c ^= Rot(b, 4);  b += a;
}

void Final(uint32_t& a, uint32_t& b, uint32_t& c) {
    c ^= b; c -= Rot(b, 14);
    a ^= c; a -= Rot(c, 11);
    b ^= a; b -= Rot(a, 25);
    c ^= b; c -= Rot(b, 16);
    a ^= c; a -= Rot(c, 4);
    b ^= a; b -= Rot(a, 14);
    c ^= b; c -= Rot(b, 24);
}

std::string Lookup3HashText(std::string text) { return std::to_string(Lookup3Hash(text.data(), text.size())); }

}  // namespace

bool Lookup3Core(const void* bytes, size_t length, uint32_t& primary, uint32_t& secondary, uint64_t& hash) {
    hash = 0;
    if (!bytes || length == 0) return false;
    primary = kPrimarySeed;
    secondary = kSecondarySeed;

    const auto* k = static_cast<const unsigned char*>(bytes);
    uint32_t a, b, c;
    a = b = c = 0xdeadbeefu + static_cast<uint32_t>(length) + primary;
    c += secondary;

    for (; length > 12; length -= 12, k += 12) {
        a += Word(k, 4);
        b += Word(k + 4, 4);
        c += Word(k + 8, 4);
        Mix(a, b, c);
    }
    // The last 1 to 12 bytes; missing ones add nothing.
    a += Word(k, length);
    if (length > 4) b += Word(k + 4, length - 4);
    if (length > 8) c += Word(k + 8, length - 8);
    Final(a, b, c);

    primary = c;
    secondary = b;
    hash = (static_cast<uint64_t>(b) << 32) | c;
    return true;
}

uint64_t Lookup3Hash(const void* bytes, size_t length) {
    uint32_t primary = 0, secondary = 0;
    uint64_t hash = 0;
    Lookup3Core(bytes, length, primary, secondary, hash);
    return hash;
}

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(Lookup3Hash, &Cryptography::Lookup3HashText)
