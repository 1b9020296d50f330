#include "synckit/api/http_transport.h"

#include <algorithm>
#include <cctype>

namespace synckit {

std::optional<std::string> headerValue(const HTTPHeaders& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() &&
        std::equal(key.begin(), key.end(), name.begin(), [](char a, char b) {
          return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
        })) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace synckit
