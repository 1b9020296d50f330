#pragma once

#include <cstdint>
#include <vector>

#include "synckit/store/sync_item.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {

// What changed after an anchor, one entry per item, in change order.
struct ChangeSet {
  std::vector<SyncItem> changed;
  std::vector<SyncItemIdentifier> deleted;
  // The log's highest anchor when the set was read; the next "since".
  std::int64_t anchor = 0;

  bool operator==(const ChangeSet&) const = default;
};

}  // namespace synckit
