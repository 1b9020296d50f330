// The brain list answer and its brains.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view json = text(data, size);
  if (auto brain = decodeOrNothing<Brain>(json)) checkRoundTrip(*brain);
  if (auto envelope = decodeOrNothing<BrainsEnvelope>(json)) {
    for (const Brain& brain : envelope->brains) checkRoundTrip(brain);
  }
  return 0;
}
