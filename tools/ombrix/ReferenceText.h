// docs/reference.md as bytes, generated at build time (EmbedText.cmake).
#pragma once

#include <cstddef>

namespace OmbrixTool {

extern const char kReferenceText[];
extern const std::size_t kReferenceTextSize;

}  // namespace OmbrixTool
