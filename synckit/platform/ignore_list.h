#pragma once

#include <string_view>

namespace synckit {

// File names that are never synced in either direction: desktop metadata
// that other systems drop into folders, and placeholders that only exist to
// keep an empty folder. Pure; any thread.
namespace IgnoreList {

// True when the last "/"-separated component of `path` (the whole path when
// there is no "/") is an ignored name. Names compare byte for byte.
bool isIgnored(std::string_view path);

}  // namespace IgnoreList
}  // namespace synckit
