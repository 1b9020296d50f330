#include "synckit/conflicts/conflict_spool_pruner.h"

#include <set>
#include <unordered_map>

namespace synckit::ConflictSpoolPruner {

void prune(const ConflictSpool& spool, MetadataStore& store) {
  store.writeTransaction([&] {
    std::set<std::int64_t> pendingIds;
    for (const PendingChange& change : store.pendingChanges()) {
      if (change.id) pendingIds.insert(*change.id);
    }
    std::vector<BrainRecord> brains = store.brains();
    std::unordered_map<std::string, bool> nodeKnown;
    spool.prune([&](std::int64_t id) { return pendingIds.contains(id); },
                [&](const std::string& nodeId) {
                  auto cached = nodeKnown.find(nodeId);
                  if (cached != nodeKnown.end()) return cached->second;
                  bool known = false;
                  for (const BrainRecord& brain : brains) {
                    if (store.nodeWithId(brain.brainId, nodeId)) {
                      known = true;
                      break;
                    }
                  }
                  nodeKnown.emplace(nodeId, known);
                  return known;
                });
  });
}

}  // namespace synckit::ConflictSpoolPruner
