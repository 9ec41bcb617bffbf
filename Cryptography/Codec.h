// Hexadecimal, Base64 and Base64URL encoders and the two Base64 decoders.
#pragma once

#include <string>
#include <string_view>

#include "Ombrix/Interfaces.h"

namespace Cryptography::Codec {

// Lowercase, two digits per byte.
std::string HexEncode(const void* bytes, size_t length);
// Standard alphabet with "=" padding.
std::string Base64Encode(const void* bytes, size_t length);
std::string Base64Encode(const Ombrix::IDataRef* data);
// URL-safe alphabet ("-" and "_"), never padded.
std::string Base64URLEncode(std::string_view bytes);
std::string Base64URLEncode(const Ombrix::IDataRef* data);

// Standard alphabet. Line breaks are skipped and "=" ends the data; a
// character outside the alphabet ends decoding. A trailing group of one
// character carries no whole byte and is dropped.
std::string Base64Decode(std::string_view text);
// URL-safe alphabet; "=" padding optional, CR and LF skipped, same rules otherwise.
std::string Base64URLDecode(std::string_view text);

}  // namespace Cryptography::Codec
