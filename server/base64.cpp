#include "server/base64.h"

namespace devserver {

std::string base64Encode(std::string_view bytes, bool urlSafe) {
  const char* alphabet = urlSafe
                             ? "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"
                             : "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    unsigned v = (byte(i) << 16) | (byte(i + 1) << 8) | byte(i + 2);
    out += {alphabet[(v >> 18) & 63], alphabet[(v >> 12) & 63], alphabet[(v >> 6) & 63],
            alphabet[v & 63]};
  }
  std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    unsigned v = byte(i) << 16;
    if (rest == 2) v |= byte(i + 1) << 8;
    out += alphabet[(v >> 18) & 63];
    out += alphabet[(v >> 12) & 63];
    if (rest == 2) out += alphabet[(v >> 6) & 63];
    if (!urlSafe) out.append(3 - rest, '=');
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string out;
  out.reserve(text.size() * 3 / 4);
  unsigned buffer = 0;
  int bits = 0;
  for (char c : text) {
    int v;
    if (c >= 'A' && c <= 'Z') {
      v = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      v = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      v = c - '0' + 52;
    } else if (c == '+' || c == '-') {
      v = 62;
    } else if (c == '/' || c == '_') {
      v = 63;
    } else {
      return std::nullopt;
    }
    buffer = (buffer << 6) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xff));
    }
  }
  if (bits >= 6) return std::nullopt;  // a lone trailing character
  return out;
}

}  // namespace devserver
