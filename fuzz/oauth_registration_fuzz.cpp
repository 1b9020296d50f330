// The answer to dynamic client registration.

#include "fuzz/oauth_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto registration = decodeOrNothing(OAuthJSON::decodeClientRegistration, bytes(data, size));
  if (registration) {
    // What the server registered goes back out in the next registration.
    RegistrationBody body{registration->clientName, registration->redirectUris,
                          registration->tokenEndpointAuthMethod};
    FUZZ_CHECK(!OAuthJSON::encode(body).empty());
  }
  return 0;
}
