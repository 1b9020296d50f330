// The authorisation server's metadata document: every endpoint it yields is
// an absolute URL.

#include "fuzz/oauth_support.h"
#include "synckit/base/url.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto metadata = decodeOrNothing(OAuthJSON::decodeAuthServerMetadata, bytes(data, size));
  if (!metadata) return 0;
  for (const std::string* endpoint : {&metadata->authorizationEndpoint, &metadata->tokenEndpoint,
                                      &metadata->registrationEndpoint}) {
    auto parts = URLComponents::parse(*endpoint);
    FUZZ_CHECK(parts && parts->scheme);
  }
  return 0;
}
