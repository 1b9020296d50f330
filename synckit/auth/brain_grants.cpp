#include "synckit/auth/brain_grants.h"

#include <optional>
#include <unordered_set>

#include "synckit/base/uuid.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit::BrainGrants {

bool apply(const std::vector<Brain>& brains, MetadataStore& store) {
  bool changed = false;
  std::unordered_set<Uuid> granted;

  for (const Brain& brain : brains) {
    std::optional<Uuid> brainId = Uuid::parse(brain.id);
    if (!brainId) continue;
    granted.insert(*brainId);
    std::optional<BrainRecord> stored = store.brain(*brainId);
    // No cursor: the upsert keeps a stored one, and a new brain starts
    // without one whatever head the server reports. None of its nodes are
    // stored yet, so its first pass must fetch the feed from no cursor.
    store.upsertBrain(BrainRecord{*brainId, brain.slug, brain.name, std::nullopt});
    if (!stored || stored->slug != brain.slug || stored->name != brain.name) {
      store.recordChange(SyncItemIdentifier::brain(*brainId), false);
      changed = true;
    }
  }

  for (const BrainRecord& record : store.brains()) {
    if (granted.contains(record.brainId)) continue;
    // Nodes before the brain, each logged, so that a run cut short leaves
    // the brain listed and the next run removes whatever is left.
    for (NodeRecord& node : store.nodes(record.brainId)) {
      store.deleteNode(record.brainId, node.nodeId);
      store.recordChange(SyncItemIdentifier::node(record.brainId, std::move(node.nodeId)), true);
    }
    store.deleteBrain(record.brainId);
    store.recordChange(SyncItemIdentifier::brain(record.brainId), true);
    changed = true;
  }
  return changed;
}

}  // namespace synckit::BrainGrants
