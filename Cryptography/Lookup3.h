// Case-insensitive lookup3 (hashlittle2) string hash with fixed seeds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Cryptography {

// hashlittle2 over the bytes with ASCII upper-case letters folded to lower
// case. The seeds are always reset to their fixed values (primary, secondary)
// and receive the two output words. Fails (hash 0) for null or empty input.
bool Lookup3Core(const void* bytes, size_t length, uint32_t& primary, uint32_t& secondary, uint64_t& hash);

// The secondary word in the high half, the primary in the low half.
uint64_t Lookup3Hash(const void* bytes, size_t length);

}  // namespace Cryptography
