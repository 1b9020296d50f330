#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "synckit/api/feed_entry.h"
#include "synckit/api/op.h"
#include "synckit/base/uuid.h"
#include "synckit/engine/download_request.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/pending_change.h"

namespace synckit {

// A conflict handler's answer for one remote op that collides with one
// waiting local change.
enum class ConflictResolution { remoteWins, keepLocal };

// What applying one page left to do.
struct ReconcileResult {
  // Files whose content the page changed, for the page's cursor.
  std::vector<DownloadRequest> downloads;
  // At least one change-log row was written.
  bool changedAnchors = false;

  bool operator==(const ReconcileResult&) const = default;
};

// Decides a collision between a remote op (of `entry`) and a waiting change.
// It may write to the store (it runs inside the page's transaction) and may
// throw, which abandons the page.
using ConflictHandler =
    std::function<ConflictResolution(const FeedEntry&, const Op&, const PendingChange&)>;

// Applies one incremental page of a brain's change feed to the store: each
// remote op is tested against the brain's waiting changes, collisions go to
// the caller's handler, and the ops go through one BatchApplier. Stateless.
namespace Reconciler {

// Applies `entries` in one immediate transaction (joining an open one) under
// the store lock, then sets the brain's cursor to `cursor`. Either all of it
// is committed or nothing: a keepLocal answer throws FileNotFoundError naming the local change's
// path, and errors of the handler or the store are rethrown, after rolling back. The brain must be
// stored (MetadataStoreError::unknownBrain otherwise). Any thread.
ReconcileResult reconcile(const std::vector<FeedEntry>& entries, const Uuid& brainId,
                          const std::optional<std::string>& cursor, MetadataStore& store,
                          const ConflictHandler& resolve);

}  // namespace Reconciler
}  // namespace synckit
