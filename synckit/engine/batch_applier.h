#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/engine/download_request.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/node_kind.h"
#include "synckit/store/node_record.h"

namespace synckit {

// The one place where a brain's node tree is changed by path: create, update,
// move, ensure a folder, delete a subtree. Every row it writes or removes gets
// a change-log row naming SyncItemIdentifier::node(brainId, nodeId), and every
// file whose content must be fetched is queued for download.
//
// Node ids it makes: "dir:" + full path for folders it creates (and for such
// folders when moved, which re-keys them), "local:" + a new upper-case UUID
// for files it creates. Any other id is kept as is.
//
// Inside a write transaction the applier keeps what it read and wrote, so
// that a page does not read back its own rows (folders it just made, the
// nodes it queued). The store's exclusiveChangeCount tells it when anyone
// else wrote in between, and it then forgets everything; outside a write
// transaction it reads the store every time.
//
// One applier serves one feed page or one local mutation, from one thread at
// a time. It does not open a transaction: callers that need the work to be
// atomic run it inside MetadataStore::writeTransaction. Every operation may
// throw the store's errors (SQLiteError, MetadataStoreError); after a throw
// the applier's queue no longer matches the store and the caller's
// transaction must be rolled back.
class BatchApplier {
 public:
  // `store` must outlive the applier.
  BatchApplier(const Uuid& brainId, MetadataStore& store);

  BatchApplier(const BatchApplier&) = delete;
  BatchApplier& operator=(const BatchApplier&) = delete;

  // Makes the proper ancestors folders, then writes a new node at `path`: a
  // folder "dir:"+path (kind text, content version 0) or a file
  // "local:"+UUID (content version 1, queued for download).
  void applyCreate(std::string_view path, std::string_view title, bool isDirectory, NodeKind kind);

  // Retitles the node at `path` and/or marks its content changed (content
  // version + 1, blob fields and upload error cleared, queued). A missing node
  // is created as a file. A no-op writes nothing.
  void applyUpdate(std::string_view path, const std::optional<std::string>& title, bool bodyChanged,
                   std::optional<NodeKind> kind);

  // Moves the node at `fromPath` with its subtree to `toPath`, replacing
  // whatever was there and creating missing ancestors. Nothing happens for a
  // move onto itself, into its own subtree, or of a missing node.
  void applyMove(std::string_view fromPath, std::string_view toPath);

  // Makes sure a folder is at `path`, deleting a file that sits there.
  void ensureDirectory(std::string_view path);
  // ensureDirectory for each proper ancestor of `path`, shortest first.
  void ensureAncestors(std::string_view path);

  // Deletes the node at `path` and its descendants except the ids in
  // `sparing`; true when at least one row went.
  bool deleteSubtree(std::string_view path, const std::unordered_set<std::string>& sparing = {});

  // Replaces a "dir:" folder by one keyed by `newPath`. A title equal to the
  // folder's old name follows the new name; any other title is kept.
  void rekeyDirectory(const NodeRecord& record, std::string_view newPath);

  // The node at `path` as the store has it now.
  std::optional<NodeRecord> nodeAtPath(std::string_view path);

  // Writes a change-log row (SyncItemIdentifier::node) for a node of this
  // brain and sets `changed`; for callers that write a node themselves.
  void recordChange(const std::string& nodeId, bool deleted);

  // Queues a node for download once; later queueing keeps the first position.
  void queueDownload(std::string_view nodeId);

  // The queued nodes that still exist as files, in first-queued order, as
  // they stand in the store now.
  std::vector<DownloadRequest> downloadRequests(const std::optional<std::string>& cursor);

  const Uuid& brainId() const noexcept { return brainId_; }
  // True once any change-log row was written; never goes back.
  bool changed() const noexcept { return changed_; }
  const std::vector<std::string>& downloadNodeIds() const noexcept { return downloadNodeIds_; }

  // The `updatedAt` of nodes created or changed from now on; the current time
  // until a caller sets it (the feed sets each entry's time).
  Timestamp entryDate() const noexcept { return entryDate_; }
  void setEntryDate(Timestamp date) noexcept { entryDate_ = date; }

 private:
  // Hashes std::string and std::string_view alike, for lookups by view.
  // Deliberately not noexcept: libstdc++ then stores each key's hash in its
  // node, so growing a table of long paths does not hash them all again.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };
  using TextSet = std::unordered_set<std::string, TextHash, std::equal_to<>>;

  // What this applier knows of the brain's nodes, valid while the store's
  // exclusive change count equals `stamp`.
  using RecordMap =
      std::unordered_map<std::string, std::optional<NodeRecord>, TextHash, std::equal_to<>>;
  struct Known {
    std::optional<std::int64_t> stamp;
    // A path's node, or none when it is known to be free.
    RecordMap byPath;
    // The byPath entry of every node held there, keyed by a view of that
    // node's own id: entries stay put while the map grows, and an entry's
    // node is unlisted here before it is replaced or dropped.
    std::unordered_map<std::string_view, RecordMap::value_type*, TextHash> byId;
    // Folders whose every descendant is in byPath.
    TextSet completeFolders;
  };

  // Marks one public call for as long as it runs. What the change count said
  // holds until control goes back to the caller, who may write in between;
  // within the call only the applier's own statements move the count, and
  // restamp accounts for those.
  class Operation {
   public:
    explicit Operation(BatchApplier& applier) noexcept : applier_(applier) { ++applier_.depth_; }
    ~Operation() {
      if (--applier_.depth_ == 0) applier_.verified_ = false;
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

   private:
    BatchApplier& applier_;
  };

  bool knownIsCurrent();
  void restamp();

  void remember(NodeRecord record);
  void rememberGone(const NodeRecord& record);
  void forgetNode(RecordMap::value_type& entry);
  bool insideCompleteFolder(std::string_view path) const;
  void upsert(const NodeRecord& record);
  void upsert(NodeRecord&& record);
  void remove(const NodeRecord& record);
  void learnNewFolder(std::string_view path);

  void dropFromQueue(const std::string& nodeId);
  NodeRecord folderRecord(std::string_view path, std::string title) const;

  Uuid brainId_;
  MetadataStore& store_;
  bool changed_ = false;
  std::vector<std::string> downloadNodeIds_;
  std::unordered_set<std::string> downloadSet_;
  Timestamp entryDate_;
  Known known_;
  int depth_ = 0;
  // known_.stamp was the store's count when last asked, within the current
  // public call.
  bool verified_ = false;
};

}  // namespace synckit
