#pragma once

#include <string_view>

namespace synckit {

// Whether a brain-relative path ("/"-separated, no leading "/") may be written
// at all. Works on the UTF-8 bytes only; never touches the file system.
// Pure; any thread.
namespace PathRules {

// False for the empty path, a path holding a backslash or a NUL byte, and a
// path with an empty, "." or ".." component (a leading, trailing or doubled
// "/" makes an empty one).
bool isNormalizedWritePath(std::string_view path);

}  // namespace PathRules
}  // namespace synckit
