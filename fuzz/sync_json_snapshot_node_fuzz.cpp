// One node of a reset snapshot.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (auto node = decodeOrNothing<SnapshotNode>(text(data, size))) {
    checkRoundTrip(*node);
    checkIdentifiable(node->nodeId);
  }
  return 0;
}
