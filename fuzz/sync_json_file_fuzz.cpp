// The answers to a blob upload and a text file read.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view json = text(data, size);
  if (auto receipt = decodeOrNothing<BlobReceipt>(json)) checkRoundTrip(*receipt);
  // Decode only: there is no encoder, but the decode must still fail cleanly.
  decodeOrNothing<TextFileEnvelope>(json);
  return 0;
}
