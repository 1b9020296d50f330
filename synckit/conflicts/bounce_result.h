#pragma once

#include <optional>

#include "synckit/conflicts/conflict_copy.h"
#include "synckit/store/node_record.h"

namespace synckit {

// What bouncing a refused content write left behind. A plain value.
struct BounceResult {
  // The node at the bounced path after the bounce; absent when it was removed.
  std::optional<NodeRecord> record;
  ConflictCopy copy;

  bool operator==(const BounceResult&) const = default;
};

}  // namespace synckit
