#include "synckit/conflicts/conflict_resolver.h"

#include <string>
#include <unordered_set>

#include "synckit/conflicts/conflict_detector.h"

namespace synckit {

std::vector<PendingChange> ConflictResolver::collidingPending(
    const std::vector<FeedEntry>& entries, const std::vector<PendingChange>& pending) {
  std::unordered_set<std::string> seenCursors;
  std::vector<bool> colliding(pending.size(), false);
  for (const FeedEntry& entry : entries) {
    seenCursors.insert(entry.cursor);
    for (const Op& op : entry.ops) {
      for (std::size_t i = 0; i < pending.size(); ++i) {
        const PendingChange& change = pending[i];
        if (change.baseCursor && seenCursors.contains(*change.baseCursor)) continue;
        if (ConflictDetector::pathsCollide(op, change)) colliding[i] = true;
      }
    }
  }
  std::vector<PendingChange> result;
  for (std::size_t i = 0; i < pending.size(); ++i) {
    if (colliding[i]) result.push_back(pending[i]);
  }
  return result;
}

}  // namespace synckit
