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

// `text` without the white space and line breaks at either end, the Unicode
// ones included (no-break space, line and paragraph separators, ideographic
// space, ...), as pasted or typed names and URLs carry them.
std::string_view trimmedWhitespace(std::string_view text);

// `text` with A to Z lower-cased and every other byte as it is: for URL
// schemes, header values and sort keys, never for display.
std::string asciiLowercased(std::string_view text);

}  // namespace synckit
