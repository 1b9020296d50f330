#include "synckit/conflicts/conflict_copy_uploader.h"

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/engine/content_uploader.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/engine/upload_plan_error.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit::ConflictCopyUploader {
namespace {

constexpr std::string_view kLocalPrefix = "local:";
constexpr std::string_view kNotUploaded = "Not uploaded: ";

std::optional<NodeRecord> copyNode(MetadataStore& store, const PendingChange& change) {
  if (change.nodeId) {
    if (auto node = store.nodeWithId(change.brainId, *change.nodeId)) return node;
  }
  return store.nodeAtPath(change.brainId, change.path);
}

// The copy stays on this computer with `reason`: its bytes go under the
// node's key before the queue forgets them, and the queued file only after.
Result keepLocal(MetadataStore& store, const ConflictSpool& spool, const PendingChange& change,
                 const Bytes& bytes, const std::string& reason, Timestamp now) {
  const std::int64_t id = *change.id;
  store.writeTransaction([&] {
    std::optional<NodeRecord> node = copyNode(store, change);
    if (node && !node->isDirectory) {
      node->localOnly = true;
      node->uploadError = reason;
      store.upsertNode(*node);
      store.recordChange(SyncItemIdentifier::node(change.brainId, node->nodeId), false);
    } else {
      node = LocalMutations::applyLocalOnly(store, change.brainId, change.path, reason, now);
    }
    spool.write(bytes, ConflictSpool::nodeKey(node->nodeId));
    store.removePendingChange(id);
  });
  spool.remove(ConflictSpool::copyKey(id));
  return Result::rejected(reason);
}

}  // namespace

Result upload(std::int64_t journalId, ConflictResolver& resolver, MetadataStore& store,
              const ConflictSpool& spool, const std::string& deviceId, const SyncAPIClient& api,
              TokenManager& tokenManager, Timestamp now) {
  checkCancellation();
  std::optional<PendingChange> change = store.pendingChange(journalId);
  if (!change) return Result::rejected("The queued copy no longer exists.");
  std::optional<Bytes> bytes = spool.read(ConflictSpool::copyKey(journalId));
  if (!bytes) throw FileNotFoundError(change->path);

  const auto size = static_cast<std::int64_t>(bytes->size());
  if (size > UploadPlanner::maxUploadBytes) {
    return keepLocal(store, spool, *change, *bytes,
                     std::string(kNotUploaded) + UploadPlanError::tooLarge(size).description(),
                     now);
  }
  const ContentUploadPlan plan = UploadPlanner::planContentUpload(*bytes);

  UploadedContent sent;
  try {
    sent = ContentUploader::send(plan, change->brainId, change->path, deviceId, api, tokenManager);
  } catch (const SyncAPIError& error) {
    if (error.isForbiddenSubtree()) {
      std::string nodeId = change->nodeId.value_or("");
      if (nodeId.empty()) {
        if (auto node = store.nodeAtPath(change->brainId, change->path)) nodeId = node->nodeId;
      }
      resolver.copyUploadBounced(change->brainId, nodeId, change->path, journalId);
      return Result::noWriteAccess();
    }
    if (error.isForbidden() || error.status() == 401) throw;
    if (error.status() >= 400 && error.status() <= 499 && error.status() != 408 &&
        error.status() != 429) {
      return keepLocal(store, spool, *change, *bytes, std::string(kNotUploaded) + error.message(),
                       now);
    }
    return Result::retryLater();
  } catch (const TransportError&) {
    return Result::retryLater();
  }

  store.writeTransaction([&] {
    // The copy's local id gives way to the server's: the server's node is
    // the copy from now on.
    if (change->nodeId && change->nodeId->starts_with(kLocalPrefix) &&
        store.deleteNode(change->brainId, *change->nodeId)) {
      store.recordChange(SyncItemIdentifier::node(change->brainId, *change->nodeId), true);
    }
    LocalMutations::applyUpload(store, change->brainId, sent.result, sent.kind, sent.blobHash,
                                sent.blobSize, journalId, now);
  });
  spool.remove(ConflictSpool::copyKey(journalId));
  return Result::uploaded();
}

std::vector<Result> drain(ConflictResolver& resolver, MetadataStore& store,
                          const ConflictSpool& spool, const std::string& deviceId,
                          const SyncAPIClient& api, TokenManager& tokenManager,
                          const std::optional<Uuid>& brainId) {
  std::vector<Result> results;
  for (const PendingChange& change : store.pendingChanges(brainId)) {
    if (!change.id || change.changeKind != PendingChangeKind::create || !change.nodeId ||
        !change.nodeId->starts_with(kLocalPrefix) ||
        !spool.exists(ConflictSpool::copyKey(*change.id))) {
      continue;
    }
    results.push_back(
        upload(*change.id, resolver, store, spool, deviceId, api, tokenManager, Timestamp::now()));
  }
  return results;
}

}  // namespace synckit::ConflictCopyUploader
