#include "synckit/conflicts/conflict_resolver.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "synckit/base/error.h"
#include "synckit/base/utf8_text.h"
#include "synckit/conflicts/conflict_detector.h"
#include "synckit/conflicts/conflict_event_log.h"
#include "synckit/conflicts/conflict_namer.h"
#include "synckit/engine/batch_applier.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/engine/reset_planner.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/platform/ignore_list.h"
#include "synckit/platform/path_rules.h"

namespace synckit {

std::vector<PendingChange> ConflictResolver::collidingPending(
    const std::vector<FeedEntry>& entries, const std::vector<PendingChange>& pending) {
  std::unordered_set<std::string> seenCursors;
  std::vector<bool> colliding(pending.size(), false);
  for (const FeedEntry& entry : entries) {
    seenCursors.insert(entry.cursor);
    for (const Op& op : entry.ops) {
      for (std::size_t i = 0; i < pending.size(); ++i) {
        const PendingChange& change = pending[i];
        if (change.baseCursor && seenCursors.contains(*change.baseCursor)) continue;
        if (ConflictDetector::pathsCollide(op, change)) colliding[i] = true;
      }
    }
  }
  std::vector<PendingChange> result;
  for (std::size_t i = 0; i < pending.size(); ++i) {
    if (colliding[i]) result.push_back(pending[i]);
  }
  return result;
}

namespace {

constexpr std::string_view kLocalPrefix = "local:";
constexpr std::string_view kFolderPrefix = "dir:";
constexpr std::string_view kTooLargeMessage = "File is too large to sync (limit 100 MB)";

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string quotedName(std::string_view path) {
  return "\u201c" + std::string(PathRules::lastComponent(path)) + "\u201d";
}

bool isContentChange(PendingChangeKind kind) {
  return kind == PendingChangeKind::create || kind == PendingChangeKind::update;
}

// Whether a stored node is still the server's item the snapshot lists: same
// place, same shape, same content, same modification to the millisecond.
bool unchanged(const NodeRecord& stored, const SnapshotNode& node) {
  return !stored.localOnly &&
         (stored.nodeId == node.nodeId || startsWith(stored.nodeId, kLocalPrefix)) &&
         stored.path == node.path && stored.isDirectory == node.isDirectory &&
         stored.kind == node.kind && stored.blobHash == node.blobHash &&
         stored.updatedAt == node.updatedAt;
}

}  // namespace

ConflictResolver::ConflictResolver(MetadataStore& store, std::string deviceName,
                                   ConflictSpool spool, std::function<Timestamp()> now,
                                   LocalContent localContent)
    : store_(store),
      deviceName_(std::move(deviceName)),
      spool_(std::move(spool)),
      now_(std::move(now)),
      localContent_(std::move(localContent)) {}

std::vector<ConflictCopy> ConflictResolver::copies() const {
  std::lock_guard<std::mutex> guard(stateLock_);
  return createdCopies_;
}

ConflictHandler ConflictResolver::conflictHandler() {
  return [this](const FeedEntry& entry, const Op& op, const PendingChange& pending) {
    return handle(entry, op, pending);
  };
}

std::string ConflictResolver::deviceLabel(std::string_view deviceName) {
  std::string label(deviceName);
  std::replace(label.begin(), label.end(), '/', '-');
  std::replace(label.begin(), label.end(), ':', '-');
  label = std::string(trimmedWhitespace(label));
  return label.empty() ? std::string("Computer") : label;
}

std::unordered_set<std::string> ConflictResolver::takenPaths(
    const Uuid& brainId, const std::set<std::string, std::less<>>& avoid) {
  std::unordered_set<std::string> existing(avoid.begin(), avoid.end());
  for (NodeRecord& node : store_.nodes(brainId)) existing.insert(std::move(node.path));
  for (PendingChange& change : store_.pendingChanges(brainId)) {
    existing.insert(std::move(change.path));
    if (change.fromPath) existing.insert(std::move(*change.fromPath));
  }
  return existing;
}

ConflictCopy ConflictResolver::saveConflictCopy(const Uuid& brainId, std::string_view originalPath,
                                                const Bytes& data, Reason reason,
                                                const std::set<std::string, std::less<>>& avoid) {
  const Timestamp at = now_();
  std::optional<std::string> spoolKey;
  ConflictCopy copy;
  try {
    copy = store_.writeTransaction([&] {
      const std::string copyPath = ConflictNamer::conflictCopyPath(
          originalPath, deviceLabel(deviceName_), at, takenPaths(brainId, avoid),
          ConflictNamer::TimeZone::utc());

      BatchApplier applier(brainId, store_);
      applier.setEntryDate(at);
      applier.ensureAncestors(copyPath);

      // Too large to upload: decided on the size alone, without copying the bytes.
      const auto size = static_cast<std::int64_t>(data.size());
      const ContentUploadPlan plan = size > UploadPlanner::maxUploadBytes
                                         ? ContentUploadPlan(ContentUploadPlan::TooLarge{size})
                                         : UploadPlanner::planContentUpload(data);
      NodeRecord node;
      node.brainId = brainId;
      node.nodeId = std::string(kLocalPrefix) + Uuid::random().toString();
      node.path = copyPath;
      node.title = UploadPlanner::defaultTitle(copyPath);
      node.isDirectory = false;
      node.updatedAt = at;
      node.contentVersion = 1;
      if (const auto* blob = plan.as<ContentUploadPlan::Blob>()) {
        node.kind = NodeKind::blob;
        node.blobHash = blob->sha256;
        node.blobSize = blob->size;
      } else if (const auto* tooLarge = plan.as<ContentUploadPlan::TooLarge>()) {
        node.kind = NodeKind::blob;
        node.blobSize = tooLarge->size;
        node.localOnly = true;
        node.uploadError = std::string(kTooLargeMessage);
      } else {
        node.kind = NodeKind::text;
      }
      store_.upsertNode(node);
      applier.recordChange(node.nodeId, false);

      std::optional<std::int64_t> journalId;
      if (node.localOnly) {
        spoolKey = ConflictSpool::nodeKey(node.nodeId);
        spool_.write(data, *spoolKey);
      } else {
        PendingChange change;
        change.brainId = brainId;
        change.nodeId = node.nodeId;
        change.changeKind = PendingChangeKind::create;
        change.path = copyPath;
        change.baseCursor = store_.cursor(brainId);
        change.createdAt = at;
        journalId = store_.enqueue(change);
        spoolKey = ConflictSpool::copyKey(*journalId);
        spool_.writeNewCopy(data, *journalId);
      }

      ConflictEvent event;
      event.brainId = brainId;
      event.path = std::string(originalPath);
      event.copyPath = copyPath;
      event.at = at;
      const std::string name = quotedName(originalPath);
      const std::string copyName = quotedName(copyPath);
      switch (reason) {
        case Reason::remoteEdit:
          event.kind = ConflictEvent::Kind::conflictedCopy;
          event.message = name + " changed on another device while you were editing it. " +
                          "Your version was saved as " + copyName + ".";
          break;
        case Reason::reset:
          event.kind = ConflictEvent::Kind::resetConflict;
          event.message = name +
                          " changed on the server while this computer was offline or out of "
                          "date. Your version was kept as " +
                          copyName + ".";
          break;
        case Reason::writeRefused:
          event.kind = ConflictEvent::Kind::readOnlyBounce;
          event.message = "You don't have write access to " + name + ". Your edit was kept as " +
                          copyName + ".";
          break;
        case Reason::staleEdit:
          event.kind = ConflictEvent::Kind::conflictedCopy;
          event.message = name + " changed elsewhere after you started editing it. " +
                          "Your version was saved as " + copyName + ".";
          break;
      }
      ConflictEventLog::append({event}, store_);
      return ConflictCopy{brainId, std::string(originalPath), copyPath, node.nodeId, journalId};
    });
  } catch (...) {
    // The rolled-back queue may hand the same id out again: a copy file left
    // under it would be taken for that change's content.
    if (spoolKey) removeQuietly(*spoolKey);
    throw;
  }
  std::lock_guard<std::mutex> guard(stateLock_);
  createdCopies_.push_back(copy);
  return copy;
}

void ConflictResolver::removeQuietly(const std::string& spoolKey) const {
  try {
    spool_.remove(spoolKey);
  } catch (const Error&) {
    // The pruner removes unreferenced entries on a later pass.
  }
}

ConflictResolution ConflictResolver::handle(const FeedEntry&, const Op& op,
                                            const PendingChange& pending) {
  if (!pending.id) return ConflictResolution::remoteWins;
  auto change = store_.pendingChange(*pending.id);
  if (!change) return ConflictResolution::remoteWins;
  if (!isContentChange(change->changeKind)) {
    store_.removePendingChange(*pending.id);
    return ConflictResolution::remoteWins;
  }
  if (const auto* update = op.as<Op::Update>(); update && !update->bodyChanged) {
    return ConflictResolution::remoteWins;
  }
  auto node = store_.nodeAtPath(change->brainId, change->path);
  if (node && node->isDirectory) {
    store_.removePendingChange(*pending.id);
    return ConflictResolution::remoteWins;
  }
  auto bytes = localContent_(*change, node);
  if (!bytes) throw FileNotFoundError(change->path);
  saveConflictCopy(change->brainId, change->path, *bytes, Reason::remoteEdit);
  store_.removePendingChange(*pending.id);
  return ConflictResolution::remoteWins;
}

BounceResult ConflictResolver::bounce(const Uuid& brainId, std::string_view path,
                                      std::optional<std::int64_t> journalId, const Bytes& data,
                                      Reason reason) {
  ConflictCopy copy = saveConflictCopy(brainId, path, data, reason);
  if (journalId) store_.removePendingChange(*journalId);
  store_.withLock([&] {
    auto node = store_.nodeAtPath(brainId, path);
    if (node && node->localOnly) {
      store_.deleteNode(brainId, node->nodeId);
      store_.recordChange(SyncItemIdentifier::node(brainId, node->nodeId), true);
    }
  });
  return BounceResult{store_.nodeAtPath(brainId, path), std::move(copy)};
}

BounceResult ConflictResolver::bounceUpsert(const Uuid& brainId, std::string_view path,
                                            std::optional<std::int64_t> journalId,
                                            const Bytes& data) {
  return bounce(brainId, path, journalId, data, Reason::writeRefused);
}

BounceResult ConflictResolver::bounceCreate(const Uuid& brainId, std::string_view path,
                                            std::optional<std::int64_t> journalId,
                                            const Bytes& data) {
  return store_.writeTransaction(
      [&] { return bounce(brainId, path, journalId, data, Reason::writeRefused); });
}

BounceResult ConflictResolver::divertStaleEdit(const Uuid& brainId, std::string_view path,
                                               std::optional<std::int64_t> journalId,
                                               const Bytes& data) {
  return bounce(brainId, path, journalId, data, Reason::staleEdit);
}

void ConflictResolver::recordSubtree(const Uuid& brainId, std::string_view path) {
  store_.withLock([&] {
    for (const NodeRecord& node : store_.subtree(brainId, path)) {
      store_.recordChange(SyncItemIdentifier::node(brainId, node.nodeId), false);
    }
  });
}

void ConflictResolver::appendRefusal(const Uuid& brainId, std::string_view path,
                                     std::string_view what) {
  ConflictEvent event;
  event.kind = ConflictEvent::Kind::readOnlyBounce;
  event.brainId = brainId;
  event.path = std::string(path);
  event.message = "You don't have write access to " + quotedName(path) + ". It was not " +
                  std::string(what) + ".";
  event.at = now_();
  ConflictEventLog::append({event}, store_);
}

void ConflictResolver::bounceMove(const Uuid& brainId, std::string_view fromPath,
                                  std::string_view toPath, std::optional<std::int64_t> journalId) {
  if (journalId) store_.removePendingChange(*journalId);
  if (!store_.nodeAtPath(brainId, fromPath) && store_.nodeAtPath(brainId, toPath)) {
    BatchApplier applier(brainId, store_);
    applier.setEntryDate(now_());
    const bool toIgnored = IgnoreList::isIgnored(toPath);
    const bool fromIgnored = IgnoreList::isIgnored(fromPath);
    if (!toIgnored && !fromIgnored) {
      applier.applyMove(toPath, fromPath);
    } else if (!toIgnored) {
      applier.deleteSubtree(toPath);
    }
  }
  recordSubtree(brainId, fromPath);
  store_.withLock([&] {
    auto node = store_.nodeAtPath(brainId, fromPath);
    if (node && node->uploadError) {
      node->uploadError.reset();
      store_.upsertNode(*node);
      store_.recordChange(SyncItemIdentifier::node(brainId, node->nodeId), false);
    }
  });
  appendRefusal(brainId, fromPath, "moved");
}

void ConflictResolver::bounceDelete(const Uuid& brainId, std::string_view path,
                                    std::optional<std::int64_t> journalId) {
  if (journalId) store_.removePendingChange(*journalId);
  recordSubtree(brainId, path);
  appendRefusal(brainId, path, "deleted");
}

void ConflictResolver::copyUploadBounced(const Uuid& brainId, std::string_view nodeId,
                                         std::string_view copyPath, std::int64_t journalId) {
  store_.writeTransaction([&] {
    auto bytes = spool_.pendingBytes(journalId);
    if (!bytes) throw FileNotFoundError(std::string(copyPath));
    const Timestamp at = now_();
    std::optional<NodeRecord> node;
    if (!nodeId.empty()) node = store_.nodeWithId(brainId, nodeId);
    if (node) {
      node->localOnly = true;
      node->uploadError = std::string(noWriteAccessMessage);
      store_.upsertNode(*node);
      store_.recordChange(SyncItemIdentifier::node(brainId, node->nodeId), false);
    } else {
      node = LocalMutations::applyLocalOnly(store_, brainId, copyPath,
                                            std::string(noWriteAccessMessage), at);
    }
    // The node's key holds the bytes before the queue forgets the copy.
    spool_.write(*bytes, ConflictSpool::nodeKey(node->nodeId));
    store_.removePendingChange(journalId);

    ConflictEvent event;
    event.kind = ConflictEvent::Kind::noWriteAccess;
    event.brainId = brainId;
    event.path = std::string(copyPath);
    event.message = "You don't have write access to this folder, so " + quotedName(copyPath) +
                    " stays on this computer only.";
    event.at = at;
    ConflictEventLog::append({event}, store_);
  });
  // Only once the store no longer queues the copy does its file go.
  spool_.remove(ConflictSpool::copyKey(journalId));
}

ResetReconciliation ConflictResolver::applyReset(const std::vector<SnapshotNode>& snapshot,
                                                 const Uuid& brainId,
                                                 const std::optional<std::string>& responseCursor) {
  std::size_t copiesBefore;
  {
    std::lock_guard<std::mutex> guard(stateLock_);
    copiesBefore = createdCopies_.size();
  }
  try {
    return store_.writeTransaction(
        [&] { return reconcileReset(snapshot, brainId, responseCursor); });
  } catch (...) {
    // Nothing of the reset was kept: neither are its copies, nor their files
    // (whose ids the rolled-back queue may hand out again).
    std::vector<ConflictCopy> undone;
    {
      std::lock_guard<std::mutex> guard(stateLock_);
      undone.assign(createdCopies_.begin() + static_cast<std::ptrdiff_t>(copiesBefore),
                    createdCopies_.end());
      createdCopies_.resize(copiesBefore);
    }
    for (const ConflictCopy& copy : undone) {
      removeQuietly(copy.journalId ? ConflictSpool::copyKey(*copy.journalId)
                                   : ConflictSpool::nodeKey(copy.nodeId));
    }
    throw;
  }
}

ResetReconciliation ConflictResolver::reconcileReset(
    const std::vector<SnapshotNode>& snapshot, const Uuid& brainId,
    const std::optional<std::string>& responseCursor) {
  const std::vector<PendingChange> pending = store_.pendingChanges(brainId);
  std::unordered_map<std::string, NodeRecord> storedByPath;
  for (NodeRecord& node : store_.nodes(brainId)) {
    std::string path = node.path;
    storedByPath.emplace(std::move(path), std::move(node));
  }
  auto storedAt = [&](std::string_view path) -> const NodeRecord* {
    auto found = storedByPath.find(std::string(path));
    return found == storedByPath.end() ? nullptr : &found->second;
  };

  // Every local version is read before anything changes, so that a missing
  // one fails the reset with nothing done.
  std::unordered_map<std::int64_t, Bytes> localBytes;
  for (const PendingChange& change : pending) {
    if (!change.id || !isContentChange(change.changeKind)) continue;
    std::optional<Bytes> bytes = spool_.pendingBytes(*change.id);
    if (!bytes) {
      const NodeRecord* stored = storedAt(change.path);
      bytes = localContent_(change, stored ? std::optional<NodeRecord>(*stored) : std::nullopt);
    }
    if (!bytes) throw FileNotFoundError(change.path);
    localBytes.emplace(*change.id, std::move(*bytes));
  }

  std::unordered_map<std::string_view, const SnapshotNode*> snapshotByPath;
  // Paths the snapshot puts something at or below: copies avoid them.
  std::set<std::string, std::less<>> occupied;
  for (const SnapshotNode& node : snapshot) {
    if (IgnoreList::isIgnored(node.path)) continue;
    snapshotByPath.emplace(node.path, &node);
    occupied.insert(node.path);
    for (std::string_view ancestor : PathRules::properAncestors(node.path)) {
      occupied.emplace(ancestor);
    }
  }
  auto snapshotAt = [&](std::string_view path) -> const SnapshotNode* {
    auto found = snapshotByPath.find(path);
    return found == snapshotByPath.end() ? nullptr : found->second;
  };
  auto pathTaken = [&](std::string_view path) { return occupied.contains(path); };
  auto subtreeUnchanged = [&](std::string_view path) {
    const NodeRecord* stored = storedAt(path);
    if (!stored) return false;
    if (!startsWith(stored->nodeId, kFolderPrefix)) {
      const SnapshotNode* node = snapshotAt(path);
      return node && unchanged(*stored, *node);
    }
    const std::string prefix = std::string(path) + "/";
    for (const auto& [storedPath, record] : storedByPath) {
      if (!startsWith(storedPath, prefix) || record.isDirectory) continue;
      const SnapshotNode* node = snapshotAt(storedPath);
      if (!node || !unchanged(record, *node)) return false;
    }
    return true;
  };

  ResetReconciliation result;
  auto rebase = [&](PendingChange change) {
    store_.setPendingBaseCursor(*change.id, responseCursor);
    change.baseCursor = responseCursor;
    result.requeued.push_back(std::move(change));
  };
  auto drop = [&](const PendingChange& change) {
    store_.removePendingChange(*change.id);
    result.dropped.push_back(change);
  };

  for (const PendingChange& change : pending) {
    if (!change.id) continue;
    switch (change.changeKind) {
      case PendingChangeKind::create:
      case PendingChangeKind::update: {
        const SnapshotNode* node = snapshotAt(change.path);
        const NodeRecord* stored = storedAt(change.path);
        const bool keepsNewItem = !node && change.changeKind == PendingChangeKind::create &&
                                  (!stored || stored->localOnly);
        const bool editsCurrentItem =
            node && !node->isDirectory && stored && !stored->localOnly && unchanged(*stored, *node);
        if (keepsNewItem || editsCurrentItem) {
          rebase(change);
        } else {
          result.copies.push_back(saveConflictCopy(brainId, change.path, localBytes.at(*change.id),
                                                   Reason::reset, occupied));
          store_.removePendingChange(*change.id);
        }
        break;
      }
      case PendingChangeKind::move:
        if (change.fromPath && subtreeUnchanged(*change.fromPath) && !pathTaken(change.path)) {
          rebase(change);
        } else {
          drop(change);
        }
        break;
      case PendingChangeKind::delete_:
        if (subtreeUnchanged(change.path)) {
          rebase(change);
        } else {
          drop(change);
        }
        break;
      case PendingChangeKind::mkdir:
        rebase(change);
        break;
    }
  }

  // A never-uploaded item whose path the snapshot now takes steps aside
  // under a copy name rather than being replaced.
  std::set<std::string, std::less<>> referenced;
  for (const PendingChange& change : result.requeued) {
    if (!isContentChange(change.changeKind)) continue;
    referenced.insert(change.path);
    if (change.nodeId) referenced.insert(*change.nodeId);
  }
  const Timestamp at = now_();
  for (NodeRecord node : store_.nodes(brainId)) {
    if (!node.localOnly || referenced.contains(node.path) || referenced.contains(node.nodeId) ||
        !pathTaken(node.path)) {
      continue;
    }
    const std::string aside = ConflictNamer::conflictCopyPath(node.path, deviceLabel(deviceName_),
                                                              at, takenPaths(brainId, occupied),
                                                              ConflictNamer::TimeZone::utc());
    BatchApplier applier(brainId, store_);
    applier.setEntryDate(at);
    applier.ensureAncestors(aside);
    if (node.isDirectory) {
      applier.applyMove(node.path, aside);
    } else {
      node.path = aside;
      node.title = UploadPlanner::defaultTitle(aside);
      store_.upsertNode(node);
      applier.recordChange(node.nodeId, false);
    }
  }

  result.plan = ResetPlanner::plan(store_, brainId, responseCursor, snapshot);
  BatchApplier applier(brainId, store_);
  applier.setEntryDate(at);
  for (const ConflictCopy& copy : result.copies) applier.ensureAncestors(copy.copyPath);
  return result;
}

}  // namespace synckit
