#include "server/form_codec.h"

namespace devserver {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string percentEncode(std::string_view text) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '.' || c == '_' || c == '~';
    if (plain) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(digits[c >> 4]);
      out.push_back(digits[c & 0x0f]);
    }
  }
  return out;
}

std::string percentDecode(std::string_view text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      int hi = hexValue(text[i + 1]);
      int lo = hexValue(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(plusIsSpace && c == '+' ? ' ' : c);
  }
  return out;
}

std::map<std::string, std::string> decodeForm(std::string_view body) {
  std::map<std::string, std::string> fields;
  std::size_t start = 0;
  while (start <= body.size()) {
    std::size_t end = body.find('&', start);
    if (end == std::string_view::npos) end = body.size();
    std::string_view pair = body.substr(start, end - start);
    if (!pair.empty()) {
      std::size_t eq = pair.find('=');
      std::string name = percentDecode(pair.substr(0, eq), true);
      std::string value =
          eq == std::string_view::npos ? std::string() : percentDecode(pair.substr(eq + 1), true);
      fields.emplace(std::move(name), std::move(value));
    }
    start = end + 1;
  }
  return fields;
}

std::string appendQuery(const std::string& url,
                        const std::initializer_list<std::pair<std::string, std::string>>& items) {
  std::string out = url;
  char separator = url.find('?') == std::string::npos ? '?' : '&';
  for (const auto& [name, value] : items) {
    out.push_back(separator);
    out += percentEncode(name);
    out.push_back('=');
    out += percentEncode(value);
    separator = '&';
  }
  return out;
}

}  // namespace devserver
