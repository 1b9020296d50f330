#pragma once

#include <string>
#include <string_view>

namespace synckit {

// `bytes` as UTF-8 text, each maximal ill-formed subsequence replaced by
// U+FFFD, so that server text of unknown quality can be shown safely.
std::string decodeUTF8Lossy(std::string_view bytes);

}  // namespace synckit
