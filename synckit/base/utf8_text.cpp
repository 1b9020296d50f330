#include "synckit/base/utf8_text.h"

#include <cstdint>

namespace synckit {
namespace {

// The sequence that starts at bytes[start]: a well-formed one whole, or an
// ill-formed one as its maximal valid prefix (at least the lead byte).
struct Sequence {
  std::size_t length = 1;
  bool wellFormed = false;
};

Sequence sequenceAt(std::string_view bytes, std::size_t start) {
  const auto lead = static_cast<std::uint8_t>(bytes[start]);
  if (lead < 0x80) return {1, true};
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
    return {1, false};
  }
  std::size_t next = start + 1;
  for (int k = 0; k < needed; ++k, ++next) {
    if (next >= bytes.size()) return {next - start, false};
    const auto byte = static_cast<std::uint8_t>(bytes[next]);
    // The byte that broke the sequence is not part of it: it starts over.
    if (byte < low || byte > high) return {next - start, false};
    low = 0x80, high = 0xBF;
  }
  return {next - start, true};
}

}  // namespace

std::string decodeUTF8Lossy(std::string_view bytes) {
  static constexpr std::string_view replacement = "\xEF\xBF\xBD";
  std::string out;
  out.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    const Sequence sequence = sequenceAt(bytes, i);
    if (sequence.wellFormed) {
      out.append(bytes.substr(i, sequence.length));
    } else {
      out += replacement;
    }
    i += sequence.length;
  }
  return out;
}

std::optional<std::size_t> utf16Length(std::string_view bytes) {
  std::size_t units = 0;
  std::size_t i = 0;
  while (i < bytes.size()) {
    if (static_cast<std::uint8_t>(bytes[i]) < 0x80) {
      ++units, ++i;
      continue;
    }
    const Sequence sequence = sequenceAt(bytes, i);
    if (!sequence.wellFormed) return std::nullopt;
    // Only the four-byte forms lie past U+FFFF and need a surrogate pair.
    units += sequence.length == 4 ? 2 : 1;
    i += sequence.length;
  }
  return units;
}

namespace {

// Length of the white space or line break that starts `text`, 0 when there
// is none. Covers the Unicode white space characters a pasted URL may carry
// (no-break space, line and paragraph separators, ideographic space, ...).
std::size_t leadingSpaceLength(std::string_view text) {
  // clang-format off
  static constexpr std::string_view spaces[] = {
      " ", "\t", "\n", "\v", "\f", "\r",
      "\xC2\x85", "\xC2\xA0", "\xE1\x9A\x80",
      "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83", "\xE2\x80\x84",
      "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89",
      "\xE2\x80\x8A", "\xE2\x80\xA8", "\xE2\x80\xA9", "\xE2\x80\xAF", "\xE2\x81\x9F",
      "\xE3\x80\x80"};
  // clang-format on
  for (std::string_view space : spaces) {
    if (text.starts_with(space)) return space.size();
  }
  return 0;
}

std::size_t trailingSpaceLength(std::string_view text) {
  // Every space above is at most three bytes long; try the longest suffix first
  // so that a multi-byte space is not mistaken for a shorter one.
  for (std::size_t length = 3; length >= 1; --length) {
    if (text.size() < length) continue;
    std::string_view tail = text.substr(text.size() - length);
    if (leadingSpaceLength(tail) == length) return length;
  }
  return 0;
}

}  // namespace

std::string_view trimmedWhitespace(std::string_view text) {
  while (std::size_t n = leadingSpaceLength(text)) text.remove_prefix(n);
  while (std::size_t n = trailingSpaceLength(text)) text.remove_suffix(n);
  return text;
}

std::string asciiLowercased(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

}  // namespace synckit
