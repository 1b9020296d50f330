// The token endpoint's answer, for both the code and the refresh grant.

#include "fuzz/oauth_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  decodeOrNothing(OAuthJSON::decodeTokenResponse, bytes(data, size));
  return 0;
}
