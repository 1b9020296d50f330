#include "synckit/engine/reset_planner.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "synckit/platform/ignore_list.h"
#include "synckit/platform/path_rules.h"

namespace synckit {
namespace {

constexpr std::string_view kFolderPrefix = "dir:";
constexpr std::string_view kMovingPrefix = "/moving:";
constexpr std::string_view kLocalPrefix = "local:";

// Adds the proper ancestors of `path` to `folders`. Walking from the longest
// one down lets it stop at the first one already there: that one's own
// ancestors went in with it.
void addProperAncestors(std::string_view path, std::set<std::string, std::less<>>& folders) {
  for (auto slash = path.rfind('/'); slash != std::string_view::npos && slash > 0;
       slash = path.rfind('/', slash - 1)) {
    if (!folders.emplace(path.substr(0, slash)).second) break;
  }
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The stored form of a snapshot node we have never seen.
NodeRecord newRecord(const Uuid& brainId, const SnapshotNode& node) {
  NodeRecord record;
  record.brainId = brainId;
  record.nodeId = node.nodeId;
  record.path = node.path;
  record.title = node.title;
  record.isDirectory = node.isDirectory;
  record.kind = node.kind;
  record.blobHash = node.blobHash;
  record.blobSize = node.blobSize;
  record.updatedAt = node.updatedAt;
  record.contentVersion = node.isDirectory ? 0 : 1;
  return record;
}

// The texts of two timestamps are equal exactly when their millisecond values
// are (the text form has milliseconds and nothing finer), so the values are
// compared rather than formatting both for every node.
bool sameAsStored(const NodeRecord& stored, const SnapshotNode& node) {
  return stored.path == node.path && stored.title == node.title &&
         stored.isDirectory == node.isDirectory && stored.kind == node.kind &&
         stored.blobHash == node.blobHash && stored.blobSize == node.blobSize &&
         stored.updatedAt == node.updatedAt;
}

bool contentChanged(const NodeRecord& stored, const SnapshotNode& node) {
  if (node.isDirectory) return false;
  return stored.blobHash != node.blobHash || stored.updatedAt != node.updatedAt;
}

class Planner {
 public:
  Planner(MetadataStore& store, const Uuid& brainId, const std::optional<std::string>& cursor)
      : store_(store), brainId_(brainId), cursor_(cursor) {}

  ResetPlan wipe() {
    const std::unordered_set<std::string> awaited = awaitingUpload();
    for (const NodeRecord& node : store_.nodes(brainId_)) {
      if (!node.localOnly && !awaited.contains(node.nodeId)) remove(node.nodeId);
    }
    return std::move(plan_);
  }

  // Nodes made here that a waiting create will upload (a new file, a
  // conflicted copy): like local-only ones they exist only on this
  // computer, and dropping them would hide the item until its upload.
  std::unordered_set<std::string> awaitingUpload() {
    std::unordered_set<std::string> ids;
    for (const PendingChange& change : store_.pendingChanges(brainId_)) {
      if (change.changeKind == PendingChangeKind::create && change.nodeId &&
          startsWith(*change.nodeId, kLocalPrefix)) {
        ids.insert(*change.nodeId);
      }
    }
    return ids;
  }

  ResetPlan apply(const std::vector<SnapshotNode>& fullSnapshot) {
    // One read of the brain serves every lookup below: the caller's
    // transaction keeps anyone else from changing it meanwhile.
    const std::vector<NodeRecord> stored = store_.nodes(brainId_);
    std::unordered_map<std::string_view, std::size_t> storedById;
    storedById.reserve(stored.size());
    for (std::size_t i = 0; i < stored.size(); ++i) storedById.emplace(stored[i].nodeId, i);

    // Each snapshot node that counts, with the stored row of the same id.
    struct Pair {
      const SnapshotNode* node;
      const NodeRecord* stored;
    };
    std::vector<Pair> snapshot;
    snapshot.reserve(fullSnapshot.size());
    std::vector<bool> inSnapshot(stored.size(), false);
    std::unordered_set<std::string_view> snapshotPaths;
    snapshotPaths.reserve(fullSnapshot.size());
    std::set<std::string, std::less<>> impliedFolders;
    Timestamp newest;
    for (const SnapshotNode& node : fullSnapshot) {
      if (IgnoreList::isIgnored(node.path)) continue;
      const NodeRecord* match = nullptr;
      if (auto found = storedById.find(node.nodeId); found != storedById.end()) {
        inSnapshot[found->second] = true;
        match = &stored[found->second];
      }
      snapshot.push_back({&node, match});
      snapshotPaths.insert(node.path);
      addProperAncestors(node.path, impliedFolders);
      newest = std::max(newest, node.updatedAt);
    }

    // The paths of stored nodes that stay without being in the snapshot.
    const std::unordered_set<std::string> awaited = awaitingUpload();
    std::unordered_set<std::string_view> kept;
    for (std::size_t i = 0; i < stored.size(); ++i) {
      if (inSnapshot[i]) continue;
      const NodeRecord& node = stored[i];
      // A path the snapshot hands to another node must be freed whatever
      // held it; otherwise a kept local or "dir:" row (the folder made from
      // the feed, now listed with the server's own id) would collide with it.
      bool pathTaken = snapshotPaths.contains(node.path);
      bool keptLocal = (node.localOnly || awaited.contains(node.nodeId)) && !pathTaken;
      bool keptFolder = startsWith(node.nodeId, kFolderPrefix) && !pathTaken &&
                        impliedFolders.contains(node.path);
      if (keptLocal || keptFolder) {
        kept.insert(node.path);
      } else {
        remove(node.nodeId);
      }
    }

    // Two passes so that no two rows ever share a path, even when nodes
    // swap places.
    std::vector<const SnapshotNode*> moving;
    for (const auto& [node, before] : snapshot) {
      if (before && before->path != node->path) moving.push_back(node);
    }
    for (const SnapshotNode* node : moving) {
      store_.updateNodePath(brainId_, node->nodeId, std::string(kMovingPrefix) + node->nodeId);
    }
    for (const SnapshotNode* node : moving) {
      store_.updateNodePath(brainId_, node->nodeId, node->path);
    }

    std::vector<NodeRecord> queued;
    for (const auto& [node, before] : snapshot) {
      if (!before) {
        NodeRecord record = newRecord(brainId_, *node);
        write(record);
        if (!record.isDirectory) queued.push_back(std::move(record));
        continue;
      }
      if (sameAsStored(*before, *node)) continue;
      bool changed = contentChanged(*before, *node);
      NodeRecord record = *before;
      record.path = node->path;
      record.title = node->title;
      record.isDirectory = node->isDirectory;
      record.kind = node->kind;
      record.blobHash = node->blobHash;
      record.blobSize = node->blobSize;
      record.updatedAt = node->updatedAt;
      if (changed) record.contentVersion += 1;
      write(record);
      if (changed) queued.push_back(std::move(record));
    }

    for (const std::string& path : impliedFolders) {
      if (snapshotPaths.contains(path) || kept.contains(path)) continue;
      NodeRecord folder;
      folder.brainId = brainId_;
      folder.nodeId = std::string(kFolderPrefix) + path;
      folder.path = path;
      folder.title = std::string(PathRules::lastComponent(path));
      folder.isDirectory = true;
      folder.kind = NodeKind::text;
      folder.updatedAt = newest;
      folder.contentVersion = 0;
      write(folder);
    }

    // Nothing after the upserts removes or changes a queued node, so the
    // records as written are what a read by id would give back.
    std::sort(queued.begin(), queued.end(),
              [](const NodeRecord& a, const NodeRecord& b) { return a.path < b.path; });
    plan_.downloads.reserve(queued.size());
    for (NodeRecord& node : queued) {
      plan_.downloads.push_back(DownloadRequest{brainId_, std::move(node.nodeId),
                                                std::move(node.path), node.kind,
                                                node.contentVersion, cursor_});
    }
    return std::move(plan_);
  }

 private:
  void remove(const std::string& nodeId) {
    store_.deleteNode(brainId_, nodeId);
    auto identifier = SyncItemIdentifier::node(brainId_, nodeId);
    store_.recordChange(identifier, true);
    plan_.deletedIdentifiers.push_back(std::move(identifier));
  }

  void write(const NodeRecord& record) {
    store_.upsertNode(record);
    store_.recordChange(SyncItemIdentifier::node(brainId_, record.nodeId), false);
  }

  MetadataStore& store_;
  const Uuid& brainId_;
  const std::optional<std::string>& cursor_;
  ResetPlan plan_;
};

}  // namespace

ResetPlan ResetPlanner::plan(MetadataStore& store, const Uuid& brainId,
                             const std::optional<std::string>& cursor,
                             const std::vector<SnapshotNode>& snapshot) {
  return store.withLock([&] {
    store.clearOwnWrites(brainId);
    Planner planner(store, brainId, cursor);
    ResetPlan plan = cursor ? planner.apply(snapshot) : planner.wipe();
    store.setCursor(brainId, cursor);
    return plan;
  });
}

}  // namespace synckit
