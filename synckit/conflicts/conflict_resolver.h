#pragma once

#include <vector>

#include "synckit/api/feed_entry.h"
#include "synckit/store/pending_change.h"

namespace synckit {

// Settles local changes that a remote change collided with. For now it only
// holds the page-wide collision test; the resolver proper (conflicted
// copies, bounces, reset reconciliation) grows in this class.
class ConflictResolver {
 public:
  // The pending changes that some op of `entries` collides with, in input
  // order, each once. A change based on a cursor of the page is tested only
  // against the ops of the entries before that cursor's entry. Pure; any
  // thread; never throws.
  static std::vector<PendingChange> collidingPending(const std::vector<FeedEntry>& entries,
                                                     const std::vector<PendingChange>& pending);
};

}  // namespace synckit
