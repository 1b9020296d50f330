// URLs from the server (OAuth metadata, redirects) and the user's base-URL
// override: parsed parts print as a URL that parses to the same parts, and
// base-URL resolution only ever yields an http(s) URL with a host.

#include <algorithm>
#include <cctype>

#include "fuzz/fuzz_check.h"
#include "synckit/base/url.h"
#include "synckit/platform/app_group.h"

using synckit::URLComponents;

namespace {

bool isUsableBaseURL(const std::string& text) {
  auto parts = URLComponents::parse(text);
  if (!parts || !parts->scheme || !parts->host || parts->host->empty()) return false;
  std::string scheme = *parts->scheme;
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return scheme == "http" || scheme == "https";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(halvark::fuzz::text(data, size));
  if (auto parts = URLComponents::parse(text)) {
    auto printed = parts->string();
    if (printed) FUZZ_CHECK(URLComponents::parse(*printed) == parts);
  }

  static const std::string fallback = synckit::AppGroup::resolveBaseURL(std::nullopt);
  std::string resolved = synckit::AppGroup::resolveBaseURL(text);
  FUZZ_CHECK(isUsableBaseURL(resolved));
  if (resolved != fallback) FUZZ_CHECK(text.find(resolved) != std::string::npos);
  return 0;
}
