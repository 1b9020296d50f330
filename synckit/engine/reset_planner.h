#pragma once

#include <optional>
#include <string>
#include <vector>

#include "synckit/api/snapshot_node.h"
#include "synckit/base/uuid.h"
#include "synckit/engine/reset_plan.h"
#include "synckit/store/metadata_store.h"

namespace synckit {

// Rewrites one brain's node tree to a full snapshot from the server, when the
// feed could not continue from our cursor. Local items that were never
// uploaded (local-only nodes, and "local:" nodes a waiting create will
// upload) survive unless the snapshot puts something at their path; folders
// the snapshot only implies (a/b for a/b/c.md) are made as "dir:" nodes.
// Every row written or removed gets a change-log row, the brain's own-write
// marks are dropped and its cursor becomes the snapshot's.
namespace ResetPlanner {

// Brings `brainId` to `snapshot` and stores `cursor`; without a cursor every
// node except the local items above is removed and nothing is downloaded.
//
// The caller holds the store's write transaction (the conflict resolver's
// reset reconciliation): the planner does not open one, so a throw part-way
// leaves writes that only the caller's rollback undoes. Throws the store's
// errors (SQLiteError, MetadataStoreError, e.g. unknownBrain when the brain
// is not stored). Any thread; it takes the store's lock for the whole plan.
ResetPlan plan(MetadataStore& store, const Uuid& brainId, const std::optional<std::string>& cursor,
               const std::vector<SnapshotNode>& snapshot);

}  // namespace ResetPlanner
}  // namespace synckit
