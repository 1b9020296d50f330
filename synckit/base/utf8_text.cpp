#include "synckit/base/utf8_text.h"

#include <cstdint>

namespace synckit {

std::string decodeUTF8Lossy(std::string_view bytes) {
  static constexpr std::string_view replacement = "\xEF\xBF\xBD";
  std::string out;
  out.reserve(bytes.size());
  std::size_t i = 0;
  const std::size_t n = bytes.size();
  while (i < n) {
    auto lead = static_cast<std::uint8_t>(bytes[i]);
    if (lead < 0x80) {
      out.push_back(bytes[i++]);
      continue;
    }
    // Continuation count and the allowed range of the first continuation
    // byte, which excludes overlong forms, surrogates and values past U+10FFFF.
    int needed = 0;
    std::uint8_t low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      needed = 1;
    } else if (lead == 0xE0) {
      needed = 2, low = 0xA0;
    } else if (lead == 0xED) {
      needed = 2, high = 0x9F;
    } else if (lead >= 0xE1 && lead <= 0xEF) {
      needed = 2;
    } else if (lead == 0xF0) {
      needed = 3, low = 0x90;
    } else if (lead == 0xF4) {
      needed = 3, high = 0x8F;
    } else if (lead >= 0xF1 && lead <= 0xF3) {
      needed = 3;
    } else {
      out += replacement;
      ++i;
      continue;
    }
    std::size_t j = i + 1;
    bool complete = true;
    for (int k = 0; k < needed; ++k, ++j) {
      auto byte = j < n ? static_cast<std::uint8_t>(bytes[j]) : 0;
      if (j >= n || byte < low || byte > high) {
        complete = false;
        break;
      }
      low = 0x80, high = 0xBF;
    }
    if (complete) {
      out.append(bytes.substr(i, j - i));
    } else {
      // The valid prefix is one replacement; the byte that broke it starts over.
      out += replacement;
    }
    i = j;
  }
  return out;
}

}  // namespace synckit
