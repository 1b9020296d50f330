#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "synckit/base/uuid.h"
#include "synckit/store/brain_record.h"
#include "synckit/store/change_set.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/node_record.h"
#include "synckit/store/pending_change.h"
#include "synckit/store/sqlite_database.h"
#include "synckit/store/sync_item.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {

// The single owner of the local database: per brain the feed cursor and the
// last known tree of nodes, the queue of local changes awaiting upload, the
// numbered change log the file-provider side enumerates, marks of our own
// writes, and a small key-value table.
//
// Any thread may call any operation. One recursive lock is held for the whole
// of every operation, so operations may call each other and writeTransaction
// bodies may call any of them. Another process may open the same file; SQLite
// (WAL, 5 s busy timeout) arbitrates between the two.
class MetadataStore {
 public:
  // Creates the parent directories, then opens the store at `databaseURL`.
  static std::unique_ptr<MetadataStore> open(const std::filesystem::path& databaseURL);

  // Opens the file and migrates its schema; any failure fails construction.
  explicit MetadataStore(const std::filesystem::path& path);

  MetadataStore(const MetadataStore&) = delete;
  MetadataStore& operator=(const MetadataStore&) = delete;

  // Meta. Setting an absent value removes the key.
  std::optional<std::string> metaValue(std::string_view key);
  void setMeta(std::string_view key, const std::optional<std::string>& value);

  // Brains. An absent cursor in upsertBrain keeps the stored one.
  void upsertBrain(const BrainRecord& brain);
  std::optional<BrainRecord> brain(const Uuid& brainId);
  std::vector<BrainRecord> brains();  // by slug, then id
  std::optional<std::string> cursor(const Uuid& brainId);
  // Throws MetadataStoreError::unknownBrain when the brain is not stored.
  void setCursor(const Uuid& brainId, const std::optional<std::string>& cursor);
  // Removes the brain row only; its nodes and queued changes stay.
  void deleteBrain(const Uuid& brainId);

  // Nodes. Lists are in path order.
  std::vector<NodeRecord> nodes(const Uuid& brainId);
  std::optional<NodeRecord> nodeAtPath(const Uuid& brainId, std::string_view path);
  std::optional<NodeRecord> nodeWithId(const Uuid& brainId, std::string_view nodeId);
  void upsertNode(const NodeRecord& node);
  // True when a row was deleted.
  bool deleteNode(const Uuid& brainId, std::string_view nodeId);
  void updateNodePath(const Uuid& brainId, std::string_view nodeId, std::string_view newPath);
  std::int64_t uploadErrorCount(const Uuid& brainId);
  // Everything below `path` (not the node at `path`); all nodes for "".
  std::vector<NodeRecord> descendants(const Uuid& brainId, std::string_view path);
  // The node at `path` (when there is one) followed by its descendants.
  std::vector<NodeRecord> subtree(const Uuid& brainId, std::string_view path);
  // The direct children of `parentPath`; the top level for "".
  std::vector<NodeRecord> children(const Uuid& brainId, std::string_view parentPath);
  // Bumps a file's content version and logs the change so the provider
  // refetches it. False (and nothing written) for a folder or unknown node.
  bool touchContent(const Uuid& brainId, std::string_view nodeId);

  // The upload queue, first in first out by id.
  std::int64_t enqueue(const PendingChange& change);
  std::vector<PendingChange> pendingChanges(const std::optional<Uuid>& brainId = std::nullopt);
  std::optional<PendingChange> pendingChange(std::int64_t id);
  void removePendingChange(std::int64_t id);
  void setPendingBaseCursor(std::int64_t id, const std::optional<std::string>& baseCursor);
  void setPendingPath(std::int64_t id, std::string_view path);

  // The change log. recordChange returns the new anchor.
  std::int64_t recordChange(const SyncItemIdentifier& identifier, bool deleted);
  // The highest anchor in the log; 0 when it is empty.
  std::int64_t currentAnchor();
  // One entry per item changed after `sinceAnchor`, latest state wins; an
  // item that no longer exists is reported deleted.
  ChangeSet changes(std::int64_t sinceAnchor);
  std::vector<SyncItem> items(const SyncItemIdentifier& container);
  std::optional<SyncItem> item(const SyncItemIdentifier& identifier);

  // Own writes: a multiset of (brain, path) marks, consumed oldest first.
  void recordOwnWrite(const Uuid& brainId, std::string_view path);
  // True when a mark was there (and is now gone).
  bool consumeOwnWrite(const Uuid& brainId, std::string_view path);
  std::int64_t ownWriteCount(const Uuid& brainId, std::string_view path);
  void clearOwnWrites(const Uuid& brainId);

  // A count that moves with every row written through this store, while
  // this store holds the database's write lock; absent otherwise, since
  // another process may then write at any moment. Equal counts mean that
  // nothing changed in between, so a caller may keep what it read.
  std::optional<std::int64_t> exclusiveChangeCount();

  // Runs `body` under the lock inside BEGIN IMMEDIATE; store operations
  // called from `body` join the transaction. An exception rolls it all back.
  template <class F>
  auto writeTransaction(F&& body) -> decltype(body()) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return database_.transaction(true, std::forward<F>(body));
  }

  // Runs `body` under the lock without a transaction.
  template <class F>
  auto withLock(F&& body) -> decltype(body()) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return std::forward<F>(body)();
  }

 private:
  std::vector<NodeRecord> queryNodes(std::string_view sql,
                                     std::span<const SQLiteArgument> bindings);
  std::optional<NodeRecord> queryNode(std::string_view sql,
                                      std::span<const SQLiteArgument> bindings);
  std::vector<PendingChange> queryPendingChanges(std::string_view sql,
                                                 std::span<const SQLiteArgument> bindings);

  std::recursive_mutex lock_;
  SQLiteDatabase database_;
};

}  // namespace synckit
