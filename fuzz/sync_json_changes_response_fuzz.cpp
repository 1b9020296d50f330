// A whole change-feed page, incremental or reset.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto page = decodeOrNothing<ChangesResponse>(text(data, size));
  if (!page) return 0;
  if (auto incremental = page->as<ChangesResponse::Incremental>()) {
    for (const FeedEntry& entry : incremental->entries) checkRoundTrip(entry);
  } else if (auto reset = page->as<ChangesResponse::Reset>()) {
    for (const SnapshotNode& node : reset->snapshot) {
      checkRoundTrip(node);
      checkIdentifiable(node.nodeId);
    }
  }
  return 0;
}
