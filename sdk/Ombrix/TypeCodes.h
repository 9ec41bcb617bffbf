// Host type codes: (base type << 2) | container kind.
#pragma once

#include <cstdint>

namespace Ombrix {

enum class Container : uint32_t { StringMap = 0, Single = 1, Vector = 2, NumberMap = 3 };

enum BaseType : uint32_t {
    kBaseBoolean = 0,
    kBaseNumber = 1,
    kBaseString = 2,
    kBaseDataRef = 3,
    kBaseStream = 4,
    kBaseFirstCustom = 5,  // JSON, then the module types in declaration order
};

constexpr uint32_t MakeTypeCode(uint32_t base, Container container) {
    return (base << 2) | static_cast<uint32_t>(container);
}
constexpr uint32_t BaseOf(uint32_t code) { return code >> 2; }
constexpr Container ContainerOf(uint32_t code) { return static_cast<Container>(code & 3u); }

// Boolean base 0 would give code 1 for a single BOOLEAN; every single value has
// the low bits 01, so an unset value (code 0) never looks like one.
constexpr uint32_t kTypeBoolean = MakeTypeCode(kBaseBoolean, Container::Single);  // 1
constexpr uint32_t kTypeNumber = MakeTypeCode(kBaseNumber, Container::Single);    // 5
constexpr uint32_t kTypeString = MakeTypeCode(kBaseString, Container::Single);    // 9
constexpr uint32_t kTypeDataRef = MakeTypeCode(kBaseDataRef, Container::Single);  // 13
constexpr uint32_t kTypeStream = MakeTypeCode(kBaseStream, Container::Single);    // 17
constexpr uint32_t kTypeJSON = MakeTypeCode(kBaseFirstCustom, Container::Single); // 21
constexpr uint32_t kTypeFirstCustom = kTypeJSON;
constexpr uint32_t kTypeStringVector = MakeTypeCode(kBaseString, Container::Vector);    // 10
constexpr uint32_t kTypeDataRefVector = MakeTypeCode(kBaseDataRef, Container::Vector);  // 14

constexpr bool IsCustomTypeCode(uint32_t code) { return code >= kTypeFirstCustom; }

}  // namespace Ombrix
