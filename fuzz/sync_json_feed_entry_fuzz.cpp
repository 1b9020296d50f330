// One change-feed entry.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (auto entry = decodeOrNothing<FeedEntry>(text(data, size))) checkRoundTrip(*entry);
  return 0;
}
