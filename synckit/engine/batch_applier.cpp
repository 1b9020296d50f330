#include "synckit/engine/batch_applier.h"

#include <algorithm>

#include "synckit/platform/path_rules.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {
namespace {

using PathRules::lastComponent;
using PathRules::properAncestors;

constexpr std::string_view kDirectoryPrefix = "dir:";
constexpr std::string_view kLocalPrefix = "local:";

std::string directoryId(std::string_view path) {
  std::string id(kDirectoryPrefix);
  id.append(path);
  return id;
}

}  // namespace

BatchApplier::BatchApplier(const Uuid& brainId, MetadataStore& store)
    : brainId_(brainId), store_(store), entryDate_(Timestamp::now()) {}

bool BatchApplier::knownIsCurrent() {
  if (verified_) return true;
  const auto stamp = store_.exclusiveChangeCount();
  if (!stamp || stamp != known_.stamp) {
    known_ = Known{};
    known_.stamp = stamp;
  }
  verified_ = depth_ > 0 && stamp.has_value();
  return stamp.has_value();
}

// After one statement of ours that changed one row. Any other count means
// that something else (a trigger, say) changed rows too, and nothing known
// is kept.
void BatchApplier::restamp() {
  if (!known_.stamp) return;
  const auto stamp = store_.exclusiveChangeCount();
  if (!stamp || *stamp != *known_.stamp + 1) known_ = Known{};
  known_.stamp = stamp;
  verified_ = depth_ > 0 && stamp.has_value();
}

// Empties a byPath entry that holds a node, keeping byId in step.
void BatchApplier::forgetNode(RecordMap::value_type& entry) {
  known_.byId.erase(entry.second->nodeId);
  entry.second.reset();
}

void BatchApplier::remember(NodeRecord record) {
  // A node known elsewhere has left its old path.
  if (auto byId = known_.byId.find(record.nodeId); byId != known_.byId.end()) {
    forgetNode(*byId->second);
  }
  auto [entry, added] = known_.byPath.try_emplace(record.path);
  if (!added && entry->second) forgetNode(*entry);
  entry->second = std::move(record);
  known_.byId.emplace(entry->second->nodeId, &*entry);
}

void BatchApplier::rememberGone(const NodeRecord& record) {
  if (auto byId = known_.byId.find(record.nodeId); byId != known_.byId.end()) {
    forgetNode(*byId->second);
  }
  auto [entry, added] = known_.byPath.try_emplace(record.path);
  if (!added && entry->second) forgetNode(*entry);
}

bool BatchApplier::insideCompleteFolder(std::string_view path) const {
  if (known_.completeFolders.empty()) return false;
  for (std::size_t i = 1; i < path.size(); ++i) {
    if (path[i] == '/' && known_.completeFolders.contains(path.substr(0, i))) return true;
  }
  return false;
}

std::optional<NodeRecord> BatchApplier::nodeAtPath(std::string_view path) {
  Operation operation(*this);
  const bool current = knownIsCurrent();
  if (current) {
    if (auto known = known_.byPath.find(path); known != known_.byPath.end()) return known->second;
    if (insideCompleteFolder(path)) return std::nullopt;
  }
  auto node = store_.nodeAtPath(brainId_, path);
  if (current) {
    if (node) {
      remember(*node);
    } else {
      known_.byPath.emplace(std::string(path), std::nullopt);
    }
  }
  return node;
}

// Writes keep what is known only when it was current just before.
void BatchApplier::upsert(const NodeRecord& record) {
  const bool current = knownIsCurrent();
  store_.upsertNode(record);
  if (current) {
    remember(record);
    restamp();
  }
}

void BatchApplier::upsert(NodeRecord&& record) {
  const bool current = knownIsCurrent();
  store_.upsertNode(record);
  if (current) {
    remember(std::move(record));
    restamp();
  }
}

void BatchApplier::remove(const NodeRecord& record) {
  const bool current = knownIsCurrent();
  store_.deleteNode(brainId_, record.nodeId);
  if (current) {
    rememberGone(record);
    restamp();
  }
}

// A folder this applier just made usually has nothing below it; knowing
// that saves a lookup for every node the page then creates inside it.
void BatchApplier::learnNewFolder(std::string_view path) {
  if (!knownIsCurrent()) return;
  auto below = store_.descendants(brainId_, path);
  for (NodeRecord& node : below) remember(std::move(node));
  known_.completeFolders.emplace(path);
}

NodeRecord BatchApplier::folderRecord(std::string_view path, std::string title) const {
  NodeRecord folder;
  folder.brainId = brainId_;
  folder.nodeId = directoryId(path);
  folder.path = std::string(path);
  folder.title = std::move(title);
  folder.isDirectory = true;
  folder.kind = NodeKind::text;
  folder.updatedAt = entryDate_;
  folder.contentVersion = 0;
  return folder;
}

void BatchApplier::applyCreate(std::string_view path, std::string_view title, bool isDirectory,
                               NodeKind kind) {
  Operation operation(*this);
  ensureAncestors(path);

  NodeRecord record;
  if (isDirectory) {
    record = folderRecord(path, std::string(title));
  } else {
    record.brainId = brainId_;
    const Uuid::Text localId = Uuid::random().toText();
    record.nodeId.reserve(kLocalPrefix.size() + localId.size());
    record.nodeId.append(kLocalPrefix).append(localId.data(), localId.size());
    record.path = std::string(path);
    record.title = std::string(title);
    record.isDirectory = false;
    record.kind = kind;
    record.updatedAt = entryDate_;
    record.contentVersion = 1;
  }
  // The record itself moves into what is known.
  const std::string nodeId = record.nodeId;
  upsert(std::move(record));
  recordChange(nodeId, false);
  if (isDirectory) {
    learnNewFolder(path);
  } else {
    queueDownload(nodeId);
  }
}

void BatchApplier::applyUpdate(std::string_view path, const std::optional<std::string>& title,
                               bool bodyChanged, std::optional<NodeKind> kind) {
  Operation operation(*this);
  auto node = nodeAtPath(path);
  if (!node) {
    applyCreate(path, title ? std::string_view(*title) : lastComponent(path), false,
                kind.value_or(NodeKind::text));
    return;
  }

  const bool contentWanted = (bodyChanged || node->localOnly) && !node->isDirectory;
  const bool retitled = title && *title != node->title;
  if (!retitled && !contentWanted) return;
  if (retitled) node->title = *title;
  if (contentWanted) {
    node->kind = kind.value_or(NodeKind::text);
    node->contentVersion += 1;
    node->updatedAt = entryDate_;
    node->blobHash.reset();
    node->blobSize.reset();
    node->uploadError.reset();
    node->localOnly = false;
    queueDownload(node->nodeId);
  }
  upsert(*node);
  recordChange(node->nodeId, false);
}

void BatchApplier::applyMove(std::string_view fromPath, std::string_view toPath) {
  Operation operation(*this);
  if (fromPath == toPath) return;
  if (toPath.size() > fromPath.size() && toPath[fromPath.size()] == '/' &&
      toPath.starts_with(fromPath)) {
    return;
  }
  // The subtree starts with the node at fromPath when there is one. Read
  // from the store: the page's knowledge is not meant for whole subtrees.
  std::vector<NodeRecord> moving = store_.subtree(brainId_, fromPath);
  if (moving.empty() || moving.front().path != fromPath) return;

  std::unordered_set<std::string> movingIds;
  for (const NodeRecord& record : moving) movingIds.insert(record.nodeId);
  deleteSubtree(toPath, movingIds);
  ensureAncestors(toPath);

  for (const NodeRecord& record : moving) {
    std::string newPath(toPath);
    newPath.append(std::string_view(record.path).substr(fromPath.size()));
    if (record.nodeId.starts_with(kDirectoryPrefix)) {
      rekeyDirectory(record, newPath);
    } else {
      // "UPDATE nodes SET path = ? WHERE brain_id = ? AND node_id = ?"
      store_.updateNodePath(brainId_, record.nodeId, newPath);
      verified_ = false;  // a row changed without restamp
      recordChange(record.nodeId, false);
    }
  }
}

void BatchApplier::ensureAncestors(std::string_view path) {
  Operation operation(*this);
  for (std::string_view ancestor : properAncestors(path)) ensureDirectory(ancestor);
}

void BatchApplier::ensureDirectory(std::string_view path) {
  Operation operation(*this);
  if (auto node = nodeAtPath(path)) {
    if (node->isDirectory) return;
    deleteSubtree(path);
  }
  NodeRecord folder = folderRecord(path, std::string(lastComponent(path)));
  const std::string nodeId = folder.nodeId;
  upsert(std::move(folder));
  recordChange(nodeId, false);
  learnNewFolder(path);
}

bool BatchApplier::deleteSubtree(std::string_view path,
                                 const std::unordered_set<std::string>& sparing) {
  Operation operation(*this);
  return store_.withLock([&] {
    bool deleted = false;
    for (const NodeRecord& record : store_.subtree(brainId_, path)) {
      if (sparing.contains(record.nodeId)) continue;
      remove(record);
      deleted = true;
      dropFromQueue(record.nodeId);
      recordChange(record.nodeId, true);
    }
    return deleted;
  });
}

void BatchApplier::rekeyDirectory(const NodeRecord& record, std::string_view newPath) {
  Operation operation(*this);
  NodeRecord rekeyed = record;
  rekeyed.nodeId = directoryId(newPath);
  rekeyed.path = std::string(newPath);
  if (record.title == lastComponent(record.path)) rekeyed.title = lastComponent(newPath);

  remove(record);
  dropFromQueue(record.nodeId);
  recordChange(record.nodeId, true);

  upsert(rekeyed);
  recordChange(rekeyed.nodeId, false);
}

void BatchApplier::recordChange(const std::string& nodeId, bool deleted) {
  Operation operation(*this);
  const bool current = knownIsCurrent();
  store_.recordChange(SyncItemIdentifier::node(brainId_, nodeId), deleted);
  if (current) restamp();
  changed_ = true;
}

void BatchApplier::queueDownload(std::string_view nodeId) {
  auto [position, inserted] = downloadSet_.emplace(nodeId);
  if (inserted) downloadNodeIds_.push_back(*position);
}

void BatchApplier::dropFromQueue(const std::string& nodeId) {
  if (downloadSet_.erase(nodeId) == 0) return;
  downloadNodeIds_.erase(std::find(downloadNodeIds_.begin(), downloadNodeIds_.end(), nodeId));
}

std::vector<DownloadRequest> BatchApplier::downloadRequests(
    const std::optional<std::string>& cursor) {
  std::vector<DownloadRequest> requests;
  requests.reserve(downloadNodeIds_.size());
  // Only reads follow, so one look at the change count covers them all.
  const bool current = knownIsCurrent();
  for (const std::string& nodeId : downloadNodeIds_) {
    if (auto known = current ? known_.byId.find(nodeId) : known_.byId.end();
        known != known_.byId.end()) {
      const auto& node = known->second->second;
      if (node->isDirectory) continue;
      requests.push_back(
          DownloadRequest{brainId_, nodeId, node->path, node->kind, node->contentVersion, cursor});
      continue;
    }
    auto node = store_.nodeWithId(brainId_, nodeId);
    if (!node || node->isDirectory) continue;
    requests.push_back(DownloadRequest{brainId_, nodeId, std::move(node->path), node->kind,
                                       node->contentVersion, cursor});
  }
  return requests;
}

}  // namespace synckit
