// docs/reference.md and docs/ombrix-lua.md as bytes, generated at build time
// (EmbedText.cmake).
#pragma once

#include <cstddef>

namespace OmbrixTool {

extern const char kReferenceText[];
extern const std::size_t kReferenceTextSize;
extern const char kLuaApiText[];
extern const std::size_t kLuaApiTextSize;

}  // namespace OmbrixTool
