#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "synckit/api/feed_entry.h"
#include "synckit/api/op.h"
#include "synckit/api/snapshot_node.h"
#include "synckit/base/bytes.h"
#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/conflicts/bounce_result.h"
#include "synckit/conflicts/conflict_copy.h"
#include "synckit/conflicts/conflict_event.h"
#include "synckit/conflicts/reset_reconciliation.h"
#include "synckit/engine/reconciler.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/node_record.h"
#include "synckit/store/pending_change.h"

namespace synckit {

// Settles a waiting local change that the server disagrees with. The local
// version that loses is never dropped: it is saved beside the original as a
// conflicted copy (queued for upload, or kept on this computer when it
// cannot be uploaded), and every user-visible outcome is appended to the
// conflict event log.
//
// One resolver is built per pass or per upload drain and then discarded. It
// is used from one thread at a time; only copies() may be read from another
// thread (createdCopies is guarded by a mutex). `store` must outlive it.
//
// Errors: the store's (SQLiteError, MetadataStoreError), the spool's
// (PosixError) and those of `localContent` are thrown unchanged; missing
// local bytes throw FileNotFoundError naming the path. Work done before a
// throw stays done, except where an operation says it runs in one
// transaction.
class ConflictResolver {
 public:
  // The local content of a waiting change (with the node stored at its path,
  // if any); absent when there is none. May throw.
  using LocalContent =
      std::function<std::optional<Bytes>(const PendingChange&, const std::optional<NodeRecord>&)>;

  // The upload error of a node kept on this computer because the server
  // refused to store it.
  static constexpr std::string_view noWriteAccessMessage = "No write access";

  ConflictResolver(MetadataStore& store, std::string deviceName, ConflictSpool spool,
                   std::function<Timestamp()> now, LocalContent localContent);
  ConflictResolver(const ConflictResolver&) = delete;
  ConflictResolver& operator=(const ConflictResolver&) = delete;

  // The copies this resolver made, in creation order. Any thread.
  std::vector<ConflictCopy> copies() const;

  // The handler the reconciler receives; it calls handle(). The resolver
  // must outlive it.
  ConflictHandler conflictHandler();

  // A remote op collides with `pending`. Always remoteWins: a waiting move,
  // delete or mkdir is dropped, a create or update is saved as a conflicted
  // copy and dropped, except that a remote update without a body change
  // keeps the change. Throws FileNotFoundError when the local content of a
  // create or update is missing.
  ConflictResolution handle(const FeedEntry& entry, const Op& op, const PendingChange& pending);

  // The server refused a content write for lack of write access: `data` is
  // saved as a copy, the waiting change `journalId` removed and a local-only
  // node at `path` deleted.
  BounceResult bounceUpsert(const Uuid& brainId, std::string_view path,
                            std::optional<std::int64_t> journalId, const Bytes& data);
  // bounceUpsert for a refused create, in one write transaction.
  BounceResult bounceCreate(const Uuid& brainId, std::string_view path,
                            std::optional<std::int64_t> journalId, const Bytes& data);
  // The edit was based on an outdated version: `data` goes aside as a copy,
  // as in bounceUpsert.
  BounceResult divertStaleEdit(const Uuid& brainId, std::string_view path,
                               std::optional<std::int64_t> journalId, const Bytes& data);

  // The server refused a move: the change is removed, the move undone
  // locally and the items shown at their server place again.
  void bounceMove(const Uuid& brainId, std::string_view fromPath, std::string_view toPath,
                  std::optional<std::int64_t> journalId);
  // The server refused a delete: the change is removed and the items shown
  // again.
  void bounceDelete(const Uuid& brainId, std::string_view path,
                    std::optional<std::int64_t> journalId);

  // The upload of the queued copy `journalId` was refused because its folder
  // is read-only: in one write transaction the copy becomes a local-only
  // node with noWriteAccessMessage, its bytes move from the queue to the
  // node's spool key and the waiting change goes. Throws FileNotFoundError
  // when the copy's spooled bytes are missing. The copy file is removed
  // after the transaction commits, so call it outside a write transaction:
  // inside one, a crash before the caller's commit would leave the copy
  // queued without its file (its bytes are then under the node's key).
  void copyUploadBounced(const Uuid& brainId, std::string_view nodeId, std::string_view copyPath,
                         std::int64_t journalId);

  // Settles the brain's waiting changes against a full snapshot (re-based,
  // dropped or copied), then rewrites the brain's nodes to it and stores
  // `responseCursor`. All of it in one immediate write transaction under the
  // store's lock; any throw rolls all of it back (spool files written before
  // the throw stay, unreferenced, for the pruner). Throws FileNotFoundError
  // when a waiting create or update has no local bytes.
  ResetReconciliation applyReset(const std::vector<SnapshotNode>& snapshot, const Uuid& brainId,
                                 const std::optional<std::string>& responseCursor);

  // The pending changes that some op of `entries` collides with, in input
  // order, each once. A change based on a cursor of the page is tested only
  // against the ops of the entries before that cursor's entry. Pure; any
  // thread; never throws.
  static std::vector<PendingChange> collidingPending(const std::vector<FeedEntry>& entries,
                                                     const std::vector<PendingChange>& pending);

  // The name conflicted copies carry for this device: `deviceName` with "/"
  // and ":" as "-", trimmed, "Computer" when nothing is left. Pure.
  static std::string deviceLabel(std::string_view deviceName);

 private:
  enum class Reason { remoteEdit, reset, writeRefused, staleEdit };

  ConflictCopy saveConflictCopy(const Uuid& brainId, std::string_view originalPath,
                                const Bytes& data, Reason reason,
                                const std::set<std::string, std::less<>>& avoid = {});
  BounceResult bounce(const Uuid& brainId, std::string_view path,
                      std::optional<std::int64_t> journalId, const Bytes& data, Reason reason);
  ResetReconciliation reconcileReset(const std::vector<SnapshotNode>& snapshot, const Uuid& brainId,
                                     const std::optional<std::string>& responseCursor);
  // Every path of the brain's nodes and waiting changes, plus `avoid`.
  std::unordered_set<std::string> takenPaths(const Uuid& brainId,
                                             const std::set<std::string, std::less<>>& avoid);
  void recordSubtree(const Uuid& brainId, std::string_view path);
  void appendRefusal(const Uuid& brainId, std::string_view path, std::string_view what);
  void removeQuietly(const std::string& spoolKey) const;

  MetadataStore& store_;
  std::string deviceName_;
  ConflictSpool spool_;
  std::function<Timestamp()> now_;
  LocalContent localContent_;
  mutable std::mutex stateLock_;
  std::vector<ConflictCopy> createdCopies_;
};

}  // namespace synckit
