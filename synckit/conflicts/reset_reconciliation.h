#pragma once

#include <vector>

#include "synckit/conflicts/conflict_copy.h"
#include "synckit/engine/reset_plan.h"
#include "synckit/store/pending_change.h"

namespace synckit {

// How a reset settled the brain's waiting changes. A plain value.
struct ResetReconciliation {
  ResetPlan plan;
  // Copies made of local versions the snapshot overtook, in creation order.
  std::vector<ConflictCopy> copies;
  // Changes kept in the queue, re-based on the reset's cursor (as stored now).
  std::vector<PendingChange> requeued;
  // Moves and deletes the snapshot made pointless, removed from the queue.
  std::vector<PendingChange> dropped;
  // Changes that could not be settled; reported to the caller to log.
  std::vector<PendingChange> unresolved;

  bool operator==(const ResetReconciliation&) const = default;
};

}  // namespace synckit
