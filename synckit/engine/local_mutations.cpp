#include "synckit/engine/local_mutations.h"

#include "synckit/engine/batch_applier.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/platform/ignore_list.h"
#include "synckit/store/pending_change.h"

namespace synckit::LocalMutations {
namespace {

constexpr std::string_view kLocalPrefix = "local:";

std::int64_t journal(MetadataStore& store, const Uuid& brainId, PendingChangeKind kind,
                     const std::optional<std::string>& nodeId, std::string_view path,
                     std::optional<std::string> fromPath, Timestamp now) {
  return store.withLock([&] {
    // Reconciliation compares this cursor with a page's to tell whether the
    // server's change came before or after this edit.
    PendingChange change;
    change.brainId = brainId;
    change.nodeId = nodeId;
    change.changeKind = kind;
    change.path = std::string(path);
    change.fromPath = std::move(fromPath);
    change.baseCursor = store.cursor(brainId);
    change.createdAt = now;
    return store.enqueue(change);
  });
}

void dropJournal(MetadataStore& store, std::optional<std::int64_t> journalId) {
  if (journalId) store.removePendingChange(*journalId);
}

}  // namespace

std::int64_t journalUpsert(MetadataStore& store, const Uuid& brainId, std::string_view path,
                           const std::optional<std::string>& nodeId, bool isNew, Timestamp now) {
  return journal(store, brainId, isNew ? PendingChangeKind::create : PendingChangeKind::update,
                 nodeId, path, std::nullopt, now);
}

std::int64_t journalMove(MetadataStore& store, const Uuid& brainId,
                         const std::optional<std::string>& nodeId, std::string_view fromPath,
                         std::string_view toPath, Timestamp now) {
  return journal(store, brainId, PendingChangeKind::move, nodeId, toPath, std::string(fromPath),
                 now);
}

std::int64_t journalDelete(MetadataStore& store, const Uuid& brainId,
                           const std::optional<std::string>& nodeId, std::string_view path,
                           Timestamp now) {
  return journal(store, brainId, PendingChangeKind::delete_, nodeId, path, std::nullopt, now);
}

NodeRecord applyUpload(MetadataStore& store, const Uuid& brainId, const WriteResult& result,
                       NodeKind kind, const std::optional<std::string>& blobHash,
                       std::optional<std::int64_t> blobSize, std::optional<std::int64_t> journalId,
                       Timestamp now) {
  return store.writeTransaction([&] {
    BatchApplier applier(brainId, store);
    applier.setEntryDate(now);
    const std::string& path = result.node.path;
    applier.ensureAncestors(path);

    NodeRecord record;
    record.brainId = brainId;
    record.nodeId = result.node.nodeId;
    record.path = path;
    record.title = UploadPlanner::defaultTitle(path);
    record.isDirectory = false;
    record.contentVersion = 1;
    if (std::optional<NodeRecord> existing = applier.nodeAtPath(path)) {
      if (existing->isDirectory) {
        applier.deleteSubtree(path);
      } else {
        // The file keeps its identity; only its content moved on.
        record = std::move(*existing);
        record.contentVersion += 1;
      }
    }
    record.kind = kind;
    const bool blob = kind == NodeKind::blob;
    record.blobHash = blob ? blobHash : std::nullopt;
    record.blobSize = blob ? blobSize : std::nullopt;
    record.updatedAt = now;
    record.localOnly = false;
    record.uploadError.reset();

    store.upsertNode(record);
    applier.recordChange(record.nodeId, false);
    dropJournal(store, journalId);
    return record;
  });
}

NodeRecord applyLocalOnly(MetadataStore& store, const Uuid& brainId, std::string_view path,
                          const std::optional<std::string>& uploadError, Timestamp now) {
  return store.writeTransaction([&] {
    BatchApplier applier(brainId, store);
    applier.setEntryDate(now);
    applier.ensureAncestors(path);
    applier.deleteSubtree(path);

    NodeRecord record;
    record.brainId = brainId;
    record.nodeId = std::string(kLocalPrefix) + Uuid::random().toString();
    record.path = std::string(path);
    record.title = UploadPlanner::defaultTitle(path);
    record.isDirectory = false;
    record.kind = NodeKind::text;
    record.updatedAt = now;
    record.contentVersion = 1;
    record.localOnly = true;
    record.uploadError = uploadError;
    store.upsertNode(record);
    applier.recordChange(record.nodeId, false);
    return record;
  });
}

NodeRecord applyLocalDirectory(MetadataStore& store, const Uuid& brainId, std::string_view path,
                               Timestamp now) {
  return store.writeTransaction([&] {
    BatchApplier applier(brainId, store);
    applier.setEntryDate(now);
    applier.ensureAncestors(path);
    // The feed's way of making a folder: an existing one stays as it is, a
    // file there is replaced by "dir:" + path titled with the last component.
    applier.ensureDirectory(path);
    return *applier.nodeAtPath(path);
  });
}

bool applyMove(MetadataStore& store, const Uuid& brainId, std::string_view fromPath,
               std::string_view toPath, std::optional<std::int64_t> journalId, Timestamp now) {
  return store.writeTransaction([&] {
    BatchApplier applier(brainId, store);
    applier.setEntryDate(now);
    // Under an ignored name the item leaves what is synced.
    if (IgnoreList::isIgnored(toPath)) {
      applier.deleteSubtree(fromPath);
    } else {
      applier.applyMove(fromPath, toPath);
    }
    dropJournal(store, journalId);
    return applier.changed();
  });
}

bool applyDelete(MetadataStore& store, const Uuid& brainId, std::string_view path,
                 std::optional<std::int64_t> journalId, Timestamp now) {
  return store.writeTransaction([&] {
    BatchApplier applier(brainId, store);
    applier.setEntryDate(now);
    applier.deleteSubtree(path);
    dropJournal(store, journalId);
    return applier.changed();
  });
}

void markUploadError(MetadataStore& store, const Uuid& brainId, std::string_view nodeId,
                     const std::optional<std::string>& message) {
  store.writeTransaction([&] {
    std::optional<NodeRecord> node = store.nodeWithId(brainId, nodeId);
    if (!node) return;
    node->uploadError = message;
    store.upsertNode(*node);
    store.recordChange(SyncItemIdentifier::node(brainId, node->nodeId), false);
  });
}

}  // namespace synckit::LocalMutations
