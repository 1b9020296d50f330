#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace synckit {

// `bytes` as UTF-8 text, each maximal ill-formed subsequence replaced by
// U+FFFD, so that server text of unknown quality can be shown safely.
std::string decodeUTF8Lossy(std::string_view bytes);

// How many UTF-16 code units `bytes` takes once decoded (two for each code
// point past U+FFFF), or nothing when `bytes` is not well-formed UTF-8.
std::optional<std::size_t> utf16Length(std::string_view bytes);

}  // namespace synckit
