// The body of a failed OAuth answer: the error object decodes or fails with
// DecodingError, and building the client's error from any body never throws.

#include "fuzz/oauth_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes body = bytes(data, size);
  auto decoded = decodeOrNothing(OAuthJSON::decodeErrorBody, body);
  OAuthError error = OAuthError::fromResponse(400, body);
  FUZZ_CHECK(error.status() == 400);
  if (decoded) {
    FUZZ_CHECK(error.error() == decoded->error);
    FUZZ_CHECK(error.errorDescription() == decoded->errorDescription);
  } else {
    FUZZ_CHECK(error.error() == "unknown");
    FUZZ_CHECK(error.errorDescription().has_value() == (size != 0));
  }
  return 0;
}
