#include "synckit/api/url_builder.h"

#include "synckit/api/sync_api_error.h"
#include "synckit/base/url.h"

namespace synckit {

std::string percentEncode(std::string_view text) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(digits[c >> 4]);
      out.push_back(digits[c & 0x0F]);
    }
  }
  return out;
}

std::string encodeQueryItems(const QueryItems& items) {
  std::string out;
  for (const auto& [name, value] : items) {
    if (!out.empty()) out.push_back('&');
    out += percentEncode(name);
    out.push_back('=');
    out += percentEncode(value);
  }
  return out;
}

std::string makeURL(std::string_view baseURL, const std::vector<std::string>& segments,
                    const QueryItems& query) {
  auto components = URLComponents::parse(baseURL);
  if (!components) throw SyncClientError::invalidURL(std::string(baseURL));

  std::string path = components->percentEncodedPath;
  while (!path.empty() && path.back() == '/') path.pop_back();
  std::string joined;
  for (const auto& segment : segments) {
    path.push_back('/');
    path += percentEncode(segment);
    if (!joined.empty()) joined.push_back('/');
    joined += segment;
  }
  components->percentEncodedPath = std::move(path);
  if (query.empty()) {
    components->percentEncodedQuery.reset();
  } else {
    components->percentEncodedQuery = encodeQueryItems(query);
  }
  auto url = components->string();
  if (!url) throw SyncClientError::invalidURL(joined);
  return *url;
}

}  // namespace synckit
