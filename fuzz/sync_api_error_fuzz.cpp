// The body of a failed sync-API answer: the envelope decodes or fails with
// DecodingError, and building the client's error from any body never throws.

#include "fuzz/sync_json_support.h"
#include "synckit/api/sync_api_client.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto envelope = decodeOrNothing<SyncAPIError::Envelope>(text(data, size));
  SyncAPIError error = SyncAPIClient::makeAPIError(500, bytes(data, size));
  FUZZ_CHECK(error.status() == 500);
  if (envelope) {
    FUZZ_CHECK(error.code() == envelope->error.code);
    FUZZ_CHECK(error.message() == envelope->error.message);
  } else {
    FUZZ_CHECK(error.code() == "unknown");
  }
  return 0;
}
