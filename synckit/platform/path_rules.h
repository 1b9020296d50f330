#pragma once

#include <string_view>
#include <vector>

namespace synckit {

// Brain-relative paths ("/"-separated, no leading "/"): whether one may be
// written at all, and its parts. Works on the UTF-8 bytes only; never touches
// the file system. Pure; any thread.
namespace PathRules {

// False for the empty path, a path holding a backslash or a NUL byte, and a
// path with an empty, "." or ".." component (a leading, trailing or doubled
// "/" makes an empty one).
bool isNormalizedWritePath(std::string_view path);

// The text after the last "/"; the whole path when it has none.
std::string_view lastComponent(std::string_view path);

// The prefixes that end just before each "/" at position 1 or later,
// shortest first: "a/b/c" gives "a" and "a/b". A "/" in the first position
// starts no ancestor, so a stray leading slash never names an empty folder.
std::vector<std::string_view> properAncestors(std::string_view path);

}  // namespace PathRules
}  // namespace synckit
