#include "synckit/base/uuid.h"

#include <uuid/uuid.h>

#include <cctype>

namespace synckit {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string format(const Uuid::Storage& bytes, const char* digits) {
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(digits[bytes[i] >> 4]);
    out.push_back(digits[bytes[i] & 0x0F]);
  }
  return out;
}

}  // namespace

Uuid Uuid::random() {
  Storage bytes{};
  uuid_generate_random(bytes.data());
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Storage bytes{};
  std::size_t out = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int high = hexValue(text[i]);
    int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[out++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return Uuid(bytes);
}

std::string Uuid::toString() const { return format(bytes_, "0123456789ABCDEF"); }

std::string Uuid::toLowerString() const { return format(bytes_, "0123456789abcdef"); }

}  // namespace synckit

std::size_t std::hash<synckit::Uuid>::operator()(const synckit::Uuid& uuid) const noexcept {
  std::size_t h = 14695981039346656037ull;
  for (auto b : uuid.bytes()) h = (h ^ b) * 1099511628211ull;
  return h;
}
