#include "synckit/engine/pending_edit_uploader.h"

#include <unordered_set>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/conflicts/conflict_copy_uploader.h"
#include "synckit/conflicts/conflict_namer.h"
#include "synckit/engine/content_uploader.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit::PendingEditUploader {
namespace {

constexpr std::string_view kTooLarge = "File is too large to sync (limit 100 MB)";

// Client errors other than a timeout or throttling are the server's last
// word on this change.
bool isFinalRefusal(const SyncAPIError& error) {
  return error.status() >= 400 && error.status() <= 499 && error.status() != 408 &&
         error.status() != 429;
}

bool mustStopDrain(const SyncAPIError& error) {
  return error.isForbidden() || error.status() == 401;
}

// The edit stays on this computer with `message`: the node's spool key gets
// the bytes inside the transaction that retires the waiting change, and
// "edit-{id}" goes only once that committed.
void keepLocal(MetadataStore& store, const ConflictSpool& spool, const PendingChange& change,
               const Bytes& bytes, const std::string& message, Timestamp now) {
  const std::int64_t id = *change.id;
  store.writeTransaction([&] {
    store.removePendingChange(id);
    std::optional<NodeRecord> node;
    if (change.changeKind == PendingChangeKind::create) {
      node = store.nodeAtPath(change.brainId, change.path);
      if (node && !node->isDirectory) {
        node->localOnly = true;
        node->uploadError = message;
        store.upsertNode(*node);
        store.recordChange(SyncItemIdentifier::node(change.brainId, node->nodeId), false);
      } else {
        node.reset();
      }
    }
    if (!node)
      node = LocalMutations::applyLocalOnly(store, change.brainId, change.path, message, now);
    spool.write(bytes, ConflictSpool::nodeKey(node->nodeId));
  });
  spool.remove(ConflictSpool::editKey(id));
}

std::optional<NodeRecord> nodeOf(MetadataStore& store, const PendingChange& change) {
  if (change.nodeId) {
    if (auto node = store.nodeWithId(change.brainId, *change.nodeId)) return node;
  }
  return store.nodeAtPath(change.brainId, change.path);
}

// The move's destination is taken on the server: a conflicted-copy name for
// it that no node of the brain has.
std::string conflictFreeDestination(MetadataStore& store, const PendingChange& change,
                                    Timestamp now) {
  std::unordered_set<std::string> taken;
  for (const NodeRecord& node : store.nodes(change.brainId)) taken.insert(node.path);
  const std::string label =
      ConflictResolver::deviceLabel(store.metaValue(MetaKey::deviceName).value_or(""));
  return ConflictNamer::conflictCopyPath(change.path, label, now, taken,
                                         ConflictNamer::TimeZone::utc());
}

// Refusals common to moves and deletes.
Result settleStructuralFailure(const SyncAPIError& error, const PendingChange& change,
                               ConflictResolver& resolver, MetadataStore& store,
                               std::string_view prefix) {
  const std::int64_t id = *change.id;
  if (error.isForbiddenSubtree()) {
    store.writeTransaction([&] {
      if (change.changeKind == PendingChangeKind::move) {
        resolver.bounceMove(change.brainId, change.fromPath.value_or(""), change.path, id);
      } else {
        resolver.bounceDelete(change.brainId, change.path, id);
      }
    });
    return Result::bounced();
  }
  if (mustStopDrain(error)) throw error;
  if (isFinalRefusal(error)) {
    store.writeTransaction([&] {
      store.removePendingChange(id);
      if (change.nodeId) {
        LocalMutations::markUploadError(store, change.brainId, *change.nodeId,
                                        std::string(prefix) + error.message());
      }
    });
    return Result::rejected(error.message());
  }
  return Result::retryLater();
}

Result settleMove(const PendingChange& change, ConflictResolver& resolver, MetadataStore& store,
                  const std::string& deviceId, const SyncAPIClient& api, TokenManager& tokenManager,
                  Timestamp now) {
  const std::string fromPath = *change.fromPath;
  std::string toPath = change.path;
  auto send = [&] {
    tokenManager.withAuthRetry(
        [&] { return api.move(change.brainId, deviceId, fromPath, toPath); });
  };
  try {
    try {
      send();
    } catch (const SyncAPIError& error) {
      if (error.isNotFound()) {
        // Already gone from the server's source path; the local tree follows.
      } else if (error.isConflict()) {
        toPath = conflictFreeDestination(store, change, now);
        store.setPendingPath(*change.id, toPath);
        try {
          send();
        } catch (const SyncAPIError& again) {
          if (!again.isNotFound()) throw;
        }
      } else {
        throw;
      }
    }
  } catch (const SyncAPIError& error) {
    PendingChange moved = change;
    moved.path = toPath;
    return settleStructuralFailure(error, moved, resolver, store, "Not moved: ");
  } catch (const TransportError&) {
    return Result::retryLater();
  }
  LocalMutations::applyMove(store, change.brainId, fromPath, toPath, change.id, now);
  return Result::uploaded();
}

Result settleDelete(const PendingChange& change, ConflictResolver& resolver, MetadataStore& store,
                    const std::string& deviceId, const SyncAPIClient& api,
                    TokenManager& tokenManager, Timestamp now) {
  try {
    tokenManager.withAuthRetry(
        [&] { return api.deleteFile(change.brainId, deviceId, change.path); });
  } catch (const SyncAPIError& error) {
    return settleStructuralFailure(error, change, resolver, store, "Not deleted: ");
  } catch (const TransportError&) {
    return Result::retryLater();
  }
  LocalMutations::applyDelete(store, change.brainId, change.path, change.id, now);
  return Result::uploaded();
}

Result settleDirectory(const PendingChange& change, MetadataStore& store, Timestamp now) {
  // Folders exist on the server only through the files in them.
  store.writeTransaction([&] {
    LocalMutations::applyLocalDirectory(store, change.brainId, change.path, now);
    store.removePendingChange(*change.id);
  });
  return Result::uploaded();
}

Result fromCopyResult(const ConflictCopyUploader::Result& result) {
  switch (result.kind()) {
    case ConflictCopyUploader::Result::Kind::rejected:
      return Result::rejected(*result.rejectedText());
    case ConflictCopyUploader::Result::Kind::uploaded:
      return Result::uploaded();
    case ConflictCopyUploader::Result::Kind::noWriteAccess:
      return Result::bounced();
    case ConflictCopyUploader::Result::Kind::retryLater:
      break;
  }
  return Result::retryLater();
}

}  // namespace

std::vector<Result> drain(ConflictResolver& resolver, MetadataStore& store,
                          const ConflictSpool& spool, const std::string& deviceId,
                          const SyncAPIClient& api, TokenManager& tokenManager,
                          const std::optional<Uuid>& brainId) {
  std::vector<Result> results;
  for (const PendingChange& listed : store.pendingChanges(brainId)) {
    checkCancellation();
    if (!listed.id) continue;
    std::optional<PendingChange> change = store.pendingChange(*listed.id);
    if (!change) continue;
    const std::int64_t id = *listed.id;
    const Timestamp now = Timestamp::now();
    switch (change->changeKind) {
      case PendingChangeKind::mkdir:
        results.push_back(settleDirectory(*change, store, now));
        break;
      case PendingChangeKind::move:
        // A move without its source cannot be sent; it waits for a reset to
        // settle it.
        if (change->fromPath) {
          results.push_back(settleMove(*change, resolver, store, deviceId, api, tokenManager, now));
        }
        break;
      case PendingChangeKind::delete_:
        results.push_back(settleDelete(*change, resolver, store, deviceId, api, tokenManager, now));
        break;
      case PendingChangeKind::create:
      case PendingChangeKind::update:
        if (spool.exists(ConflictSpool::copyKey(id))) {
          results.push_back(fromCopyResult(ConflictCopyUploader::upload(
              id, resolver, store, spool, deviceId, api, tokenManager, now)));
        } else if (spool.exists(ConflictSpool::editKey(id))) {
          results.push_back(upload(id, resolver, store, spool, deviceId, api, tokenManager, now));
        }
        break;
    }
  }
  return results;
}

Result upload(std::int64_t journalId, ConflictResolver& resolver, MetadataStore& store,
              const ConflictSpool& spool, const std::string& deviceId, const SyncAPIClient& api,
              TokenManager& tokenManager, Timestamp now) {
  checkCancellation();
  std::optional<PendingChange> change = store.pendingChange(journalId);
  if (!change) return Result::rejected("The queued edit no longer exists.");
  const bool isCreate = change->changeKind == PendingChangeKind::create;
  if (!isCreate && change->changeKind != PendingChangeKind::update) {
    return Result::rejected("The queued change is not a file edit.");
  }
  std::optional<Bytes> bytes = spool.read(ConflictSpool::editKey(journalId));
  if (!bytes) throw FileNotFoundError(change->path);

  std::optional<NodeRecord> node = nodeOf(store, *change);
  if (node && node->localOnly && node->uploadError == ConflictResolver::noWriteAccessMessage) {
    keepLocal(store, spool, *change, *bytes, std::string(ConflictResolver::noWriteAccessMessage),
              now);
    return Result::bounced();
  }
  const ContentUploadPlan plan = UploadPlanner::planContentUpload(*bytes);
  if (plan.kind() == ContentUploadPlan::Kind::tooLarge) {
    keepLocal(store, spool, *change, *bytes, std::string(kTooLarge), now);
    return Result::rejected(std::string(kTooLarge));
  }

  UploadedContent sent;
  try {
    sent = ContentUploader::send(plan, change->brainId, change->path, deviceId, api, tokenManager);
  } catch (const SyncAPIError& error) {
    if (error.isForbiddenSubtree()) {
      BounceResult bounce = store.writeTransaction([&] {
        return isCreate ? resolver.bounceCreate(change->brainId, change->path, journalId, *bytes)
                        : resolver.bounceUpsert(change->brainId, change->path, journalId, *bytes);
      });
      // The bytes now live on as the queued copy (or the copy's node key).
      spool.remove(ConflictSpool::editKey(journalId));
      if (bounce.copy.journalId) {
        ConflictCopyUploader::upload(*bounce.copy.journalId, resolver, store, spool, deviceId, api,
                                     tokenManager, now);
      }
      return Result::bounced();
    }
    if (mustStopDrain(error)) throw;
    if (isFinalRefusal(error)) {
      keepLocal(store, spool, *change, *bytes, "Not uploaded: " + error.message(), now);
      return Result::rejected(error.message());
    }
    return Result::retryLater();
  } catch (const TransportError&) {
    return Result::retryLater();
  }

  // A write the server took but that was cancelled before being recorded is
  // sent again on the next pass.
  checkCancellation();
  LocalMutations::applyUpload(store, change->brainId, sent.result, sent.kind, sent.blobHash,
                              sent.blobSize, journalId, now);
  spool.remove(ConflictSpool::editKey(journalId));
  return Result::uploaded();
}

}  // namespace synckit::PendingEditUploader
