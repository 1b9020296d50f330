#pragma once
// Brain-relative paths: "/"-separated, no leading or trailing "/", compared byte
// for byte. Pure functions, callable from any thread.

#include <string>
#include <string_view>
#include <vector>

namespace devserver {

// False for the empty path, a leading, trailing or doubled "/", a "." or ".."
// component, a backslash or a NUL byte.
bool isValidBrainPath(std::string_view path);

// The text after the last "/" (the whole path when it has none).
std::string lastComponent(std::string_view path);

// The proper ancestors, shortest first: a/b/c gives a and a/b.
std::vector<std::string> ancestorPaths(std::string_view path);

// True when `path` is `root` itself or lies below it.
bool isWithin(std::string_view path, std::string_view root);

// The title a file gets when the writer names none: its name without the last
// extension (notes/plan.md gives plan; .profile stays .profile).
std::string defaultTitle(std::string_view path);

}  // namespace devserver
