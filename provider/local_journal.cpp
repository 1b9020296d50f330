#include "provider/local_journal.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "provider/mirror_names.h"
#include "provider/mirror_path_error.h"
#include "provider/mirror_root.h"
#include "synckit/base/crypto.h"
#include "synckit/base/error.h"
#include "synckit/base/timestamp.h"
#include "synckit/conflicts/conflict_resolver.h"
#include "synckit/conflicts/sync_error_log.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/engine/upload_plan_error.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/platform/path_rules.h"
#include "synckit/store/local_index.h"
#include "synckit/store/metadata_store.h"

namespace halvark::provider {
namespace {

using synckit::IndexEntry;
using synckit::NodeRecord;
using synckit::PendingChange;
using synckit::PendingChangeKind;
using synckit::SyncItemIdentifier;
using synckit::Uuid;

std::string_view parentOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

bool isAtOrBelow(std::string_view path, std::string_view folder) {
  return path == folder ||
         (path.starts_with(folder) && path.size() > folder.size() && path[folder.size()] == '/');
}

// Whether the file on disk is still the one the row records.
bool matches(const FileState& state, const IndexEntry& row) {
  return state.isRegular && !state.isSymlink && state.size == row.size &&
         state.mtimeNanoseconds == row.mtimeNanoseconds && state.inode == row.inode;
}

// "name 2" for a folder, "stem 2.ext" for a file.
std::string numbered(std::string_view name, int number, bool isDirectory) {
  const std::string suffix = " " + std::to_string(number);
  const std::size_t dot = name.rfind('.');
  if (isDirectory || dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) {
    return std::string(name) + suffix;
  }
  return std::string(name.substr(0, dot)) + suffix + std::string(name.substr(dot));
}

bool isEdit(const PendingChange& change) {
  return change.changeKind == PendingChangeKind::create ||
         change.changeKind == PendingChangeKind::update;
}

}  // namespace

// One apply(): where the brains are, what is queued, and the work.
struct LocalJournal::Batch {
  // Where a mirror path lies.
  struct Place {
    std::string path;             // mirror-relative
    std::optional<Uuid> brainId;  // absent outside every brain's folder
    std::string folder;           // the brain's folder
    std::string nodePath;         // brain-relative; "" for the brain's folder itself

    bool inBrain() const { return brainId && !nodePath.empty(); }
    bool atTop() const { return !brainId && path.find('/') == std::string::npos; }
    std::string name() const { return std::string(synckit::PathRules::lastComponent(path)); }
  };

  LocalJournal& owner;
  synckit::MetadataStore& store;
  synckit::LocalIndex& index;
  MirrorRoot& mirror;
  Outcome outcome;
  std::map<Uuid, std::string> folders;
  std::map<std::string, Uuid, std::less<>> brainAt;
  const synckit::Timestamp now = synckit::Timestamp::now();
  bool caughtUp = false;
  std::optional<std::optional<Uuid>> inbox;
  // Per brain, the latest pending change at each path, read when first needed.
  std::map<Uuid, std::map<std::string, PendingChange, std::less<>>> queued;

  explicit Batch(LocalJournal& journal)
      : owner(journal),
        store(journal.store_),
        index(journal.index_),
        mirror(journal.mirror_),
        folders(journal.index_.brainFolders()) {
    for (const auto& [brainId, folder] : folders) brainAt.emplace(folder, brainId);
  }

  // --- Places ------------------------------------------------------------

  Place locate(std::string_view path) const {
    Place place{std::string(path), std::nullopt, {}, {}};
    const std::size_t slash = path.find('/');
    auto brain = brainAt.find(path.substr(0, slash));
    if (brain == brainAt.end()) return place;
    place.brainId = brain->second;
    place.folder = brain->first;
    if (slash != std::string_view::npos) place.nodePath = std::string(path.substr(slash + 1));
    return place;
  }

  Place child(const Place& place, std::string_view name) const {
    return locate(place.path + "/" + std::string(name));
  }

  std::optional<Uuid> inboxId() {
    if (!inbox) {
      std::optional<Uuid> preferred;
      if (auto text = store.metaValue(synckit::MetaKey::inboxBrainId)) {
        preferred = Uuid::parse(*text);
      }
      inbox = synckit::UploadPlanner::resolveInboxBrain(store.brains(), preferred);
    }
    return *inbox;
  }

  // The parent of a brain-relative path as the planner wants it.
  std::pair<SyncItemIdentifier, std::optional<std::string>> parentOfNode(const Uuid& brainId,
                                                                         std::string_view path) {
    const std::string parent(parentOf(path));
    if (parent.empty()) return {SyncItemIdentifier::brain(brainId), std::nullopt};
    auto node = store.nodeAtPath(brainId, parent);
    return {SyncItemIdentifier::node(brainId, node ? node->nodeId : "dir:" + parent), parent};
  }

  // --- What is queued ------------------------------------------------------

  std::map<std::string, PendingChange, std::less<>>& queuedIn(const Uuid& brainId) {
    auto [it, fresh] = queued.try_emplace(brainId);
    if (fresh) {
      for (PendingChange& change : store.pendingChanges(brainId)) {
        it->second[change.path] = std::move(change);  // in id order: the latest stays
      }
    }
    return it->second;
  }

  // The latest change queued at `path` that is still queued.
  std::optional<PendingChange> queuedAt(const Uuid& brainId, std::string_view path) {
    auto& changes = queuedIn(brainId);
    auto it = changes.find(path);
    if (it == changes.end() || !it->second.id) return std::nullopt;
    return store.pendingChange(*it->second.id);
  }

  void note(const PendingChange& change) {
    queuedIn(change.brainId)[change.path] = change;
    ++outcome.journalled;
  }

  PendingChange journalled(std::int64_t id, const Uuid& brainId, PendingChangeKind kind,
                           std::string path, std::optional<std::string> nodeId) {
    PendingChange change;
    change.id = id;
    change.brainId = brainId;
    change.nodeId = std::move(nodeId);
    change.changeKind = kind;
    change.path = std::move(path);
    return change;
  }

  // --- Reporting -------------------------------------------------------------

  void refuse(const std::string& path, const std::string& text) {
    outcome.refusals.push_back(text);
    if (!owner.refused_.emplace(path, text).second) return;
    owner.log_.error("Not synced \u201c%s\u201d: %s", path.c_str(), text.c_str());
    synckit::SyncErrorLog::append({text}, store);
  }

  void refuseBrainFolder(const Place& place) {
    refuse(place.path, "\u201c" + place.folder +
                           "\u201d is the folder of a brain. It can't be moved or removed here.");
  }

  // --- The changes -------------------------------------------------------------

  void apply(const LocalChange& change) {
    const Place place = locate(change.path);
    consumeMark(place);
    std::optional<Place> from;
    if (change.fromPath) {
      from = locate(*change.fromPath);
      consumeMark(*from);
    }
    try {
      switch (change.kind) {
        case LocalChange::Kind::written:
        case LocalChange::Kind::madeFolder:
          appeared(place, false);
          break;
        case LocalChange::Kind::moved:
          if (from) {
            moved(*from, place);
          } else {
            appeared(place, true);
          }
          break;
        case LocalChange::Kind::removed:
          removed(place);
          break;
      }
    } catch (const synckit::FileNotFoundError&) {
      // Gone while it was looked at: the watcher reports what happened next.
    } catch (const MirrorPathError& error) {
      if (error.reason() == MirrorPathError::Reason::systemError) {
        refuse(change.path, error.description());  // unreadable, for one
      } else if (owner.refused_.emplace(change.path, error.description()).second) {
        owner.log_.info("Passed over \u201c%s\u201d: %s", change.path.c_str(),
                        error.description().c_str());
      }
    }
  }

  // The provider's own writes are known by the index; the marks only have
  // to go so that they do not pile up.
  void consumeMark(const Place& place) {
    if (place.brainId) store.consumeOwnWrite(*place.brainId, place.nodePath);
  }

  // Something is at `place` that may be new or changed; `whole` journals a
  // folder's content too (a folder moved in is not reported item by item).
  void appeared(const Place& place, bool whole) {
    const FileState state = mirror.stat(place.path);
    if (!state.exists || state.isSymlink || !(state.isRegular || state.isDirectory)) return;
    if (!MirrorNames::isSynced(place.path, state.isDirectory)) return;
    if (place.atTop()) return toInbox(place, state);
    if (!place.inBrain()) return;
    if (state.isRegular) return file(place, state);
    if (!folder(place, state) || !whole) return;
    for (const std::string& name : mirror.list(place.path)) appeared(child(place, name), true);
  }

  // --- Files -------------------------------------------------------------------

  void file(const Place& place, const FileState& state) {
    const Uuid& brainId = *place.brainId;
    std::optional<IndexEntry> row = index.entryAtPath(place.path);
    if (row && row->isDirectory) {
      removeItem(place, *row);  // a folder gave way to a file
      row.reset();
    }
    if (row && row->brainId != brainId) return;  // left here by a refused move
    if (row && matches(state, *row)) return;

    if (state.size > synckit::UploadPlanner::maxUploadBytes) {
      return refuse(place.path, synckit::UploadPlanError::tooLarge(state.size).description());
    }
    std::optional<synckit::Bytes> data = readWhole(place.path, state);
    if (!data) return;
    const std::string hash = synckit::hexLower(synckit::sha256(*data));
    if (row && row->contentHash == hash) {
      // Touched, not changed.
      row->size = state.size;
      row->mtimeNanoseconds = state.mtimeNanoseconds;
      row->inode = state.inode;
      return index.put(*row);
    }

    std::optional<NodeRecord> node;
    if (row && !isPlaceholder(row->nodeId)) node = store.nodeWithId(brainId, row->nodeId);
    if (!node) node = store.nodeAtPath(brainId, place.nodePath);
    if (node && node->isDirectory) {
      if (owner.refused_.emplace(place.path, "folder").second) {
        owner.log_.info("Kept local file \u201c%s\u201d where the server has a folder",
                        place.path.c_str());
      }
      return;
    }
    if (node && !node->localOnly && !basedOnCurrent(*node, row, place)) {
      if (!caughtUp && owner.catchUp_) {
        // The index may only lag behind this device's own upload.
        caughtUp = true;
        owner.catchUp_();
        return appeared(place, false);
      }
      return divert(place, *node, row, *data, hash);
    }

    std::optional<std::int64_t> id = alreadyQueued(brainId, place.nodePath, hash);
    if (!id) {
      if (!node) {
        auto [parent, parentPath] = parentOfNode(brainId, place.nodePath);
        const synckit::CreatePlan plan =
            synckit::UploadPlanner::planCreate(parent, parentPath, place.name(), false, inboxId());
        if (const auto* rejected = plan.as<synckit::CreatePlan::Rejected>()) {
          return refuse(place.path, rejected->error.description());
        }
        if (plan.kind() != synckit::CreatePlan::Kind::upload) return;
      }
      const std::optional<std::string> nodeId =
          node ? std::optional<std::string>(node->nodeId) : std::nullopt;
      // The bytes go to the spool before the change that names them commits.
      id = store.writeTransaction([&] {
        const std::int64_t journalId = synckit::LocalMutations::journalUpsert(
            store, brainId, place.nodePath, nodeId, !node, now);
        owner.spool_.writeEdit(*data, journalId);
        return journalId;
      });
      note(journalled(*id, brainId, node ? PendingChangeKind::update : PendingChangeKind::create,
                      place.nodePath, nodeId));
    }

    // The index now records the journalled file, so that the updater treats
    // it as its own and neither the watcher nor a rescan journals it again.
    IndexEntry entry{brainId,
                     std::string(placeholderPrefix) + std::to_string(*id),
                     place.path,
                     false,
                     0,
                     state.size,
                     state.mtimeNanoseconds,
                     state.inode,
                     hash};
    if (node) {
      entry.nodeId = node->nodeId;
      if (row && row->nodeId == node->nodeId) {
        entry.contentVersion = row->contentVersion;
      } else if (node->localOnly) {
        entry.contentVersion = node->contentVersion;
      }
    }
    index.put(entry);
  }

  // The whole file, or nothing when it changed while being read (its next
  // event brings it).
  std::optional<synckit::Bytes> readWhole(const std::string& path, const FileState& state) {
    synckit::Bytes data = mirror.read(path, static_cast<std::size_t>(state.size) + 1);
    if (static_cast<std::int64_t>(data.size()) != state.size || mirror.stat(path) != state) {
      return std::nullopt;
    }
    return data;
  }

  // Whether the user's file was made from the store's current version of
  // `node`: the index has that version, or the server has the bytes the
  // index records, or an edit of it is still queued (a remote change in
  // between would have settled that edit, since it collides).
  bool basedOnCurrent(const NodeRecord& node, const std::optional<IndexEntry>& row,
                      const Place& place) {
    if (row && row->nodeId == node.nodeId && row->contentVersion >= node.contentVersion) {
      return true;
    }
    if (row && node.blobHash && *node.blobHash == row->contentHash) return true;
    auto pending = queuedAt(node.brainId, place.nodePath);
    return pending && isEdit(*pending);
  }

  // The id of the latest queued edit at `path` when it already holds these
  // bytes (a rescan after a crash, or a change reported twice).
  std::optional<std::int64_t> alreadyQueued(const Uuid& brainId, std::string_view path,
                                            const std::string& hash) {
    auto pending = queuedAt(brainId, path);
    if (!pending || !isEdit(*pending)) return std::nullopt;
    auto bytes = owner.spool_.pendingBytes(*pending->id);
    if (!bytes || synckit::hexLower(synckit::sha256(*bytes)) != hash) return std::nullopt;
    return pending->id;
  }

  // A stale edit: the user's bytes become a conflicted copy (the file
  // renamed to the copy's name) and the original path is left for the
  // updater, which is told to fetch it again.
  void divert(const Place& place, const NodeRecord& node, const std::optional<IndexEntry>& row,
              const synckit::Bytes& data, const std::string& hash) {
    const Uuid& brainId = *place.brainId;
    std::optional<std::pair<std::string, std::string>> copy =
        queuedCopy(brainId, place.nodePath, hash);
    if (!copy) {
      synckit::ConflictResolver resolver(
          store, store.metaValue(synckit::MetaKey::deviceName).value_or(""), owner.spool_,
          [] { return synckit::Timestamp::now(); },
          [](const PendingChange&, const std::optional<NodeRecord>&) {
            return std::optional<synckit::Bytes>();
          });
      const synckit::BounceResult result = store.writeTransaction(
          [&] { return resolver.divertStaleEdit(brainId, place.nodePath, std::nullopt, data); });
      copy.emplace(result.copy.copyPath, result.copy.nodeId);
      if (result.copy.journalId) {
        note(journalled(*result.copy.journalId, brainId, PendingChangeKind::create,
                        result.copy.copyPath, result.copy.nodeId));
      }
    }
    const std::string copyPath = place.folder + "/" + copy->first;
    store.writeTransaction([&] {
      store.recordOwnWrite(brainId, place.nodePath);
      store.recordOwnWrite(brainId, copy->first);
    });
    mirror.rename(place.path, copyPath);
    const FileState moved = mirror.stat(copyPath);
    const auto copyNode = store.nodeWithId(brainId, copy->second);
    index.transaction([&] {
      if (row) index.remove(row->brainId, row->nodeId);
      index.put(IndexEntry{brainId, copy->second, copyPath, false,
                           copyNode ? copyNode->contentVersion : 0, moved.size,
                           moved.mtimeNanoseconds, moved.inode, hash});
      index.addRetry(brainId, node.nodeId);
    });
    owner.log_.info(
        "\u201c%s\u201d changed elsewhere after it was edited here; the edit is kept "
        "as \u201c%s\u201d",
        place.path.c_str(), copyPath.c_str());
  }

  // A conflicted copy of these bytes already queued beside `path` whose file
  // is not on disk yet (a divert cut short before its rename): its path and
  // node id.
  std::optional<std::pair<std::string, std::string>> queuedCopy(const Uuid& brainId,
                                                                std::string_view path,
                                                                const std::string& hash) {
    const std::string_view parent = parentOf(path);
    for (const auto& [copyPath, change] : queuedIn(brainId)) {
      if (copyPath == path || parentOf(copyPath) != parent || !change.id ||
          change.changeKind != PendingChangeKind::create || !change.nodeId ||
          !change.nodeId->starts_with("local:")) {
        continue;
      }
      auto bytes = owner.spool_.read(synckit::ConflictSpool::copyKey(*change.id));
      if (bytes && synckit::hexLower(synckit::sha256(*bytes)) == hash &&
          !mirror.stat(folders.at(brainId) + "/" + copyPath).exists) {
        return std::make_pair(copyPath, *change.nodeId);
      }
    }
    return std::nullopt;
  }

  // --- Folders -------------------------------------------------------------------

  // Journals a new folder; false when it is not synced (refused, ignored, or
  // a file of the server's in its place).
  bool folder(const Place& place, const FileState& state) {
    const Uuid& brainId = *place.brainId;
    std::optional<IndexEntry> row = index.entryAtPath(place.path);
    if (row && !row->isDirectory) {
      removeItem(place, *row);  // a file gave way to a folder
      row.reset();
    }
    if (row) return row->brainId == brainId;
    auto folderRow = [&](std::string nodeId, std::int64_t contentVersion) {
      index.put(IndexEntry{
          brainId, std::move(nodeId), place.path, true, contentVersion, 0, 0, state.inode, {}});
    };
    if (auto node = store.nodeAtPath(brainId, place.nodePath)) {
      if (!node->isDirectory) return false;
      folderRow(node->nodeId, node->contentVersion);
      return true;
    }
    auto pending = queuedAt(brainId, place.nodePath);
    if (!pending || pending->changeKind != PendingChangeKind::mkdir) {
      auto [parent, parentPath] = parentOfNode(brainId, place.nodePath);
      const synckit::CreatePlan plan =
          synckit::UploadPlanner::planCreate(parent, parentPath, place.name(), true, inboxId());
      if (const auto* rejected = plan.as<synckit::CreatePlan::Rejected>()) {
        refuse(place.path, rejected->error.description());
        return false;
      }
      if (plan.kind() != synckit::CreatePlan::Kind::localDirectoryOnly) return false;
      PendingChange change;
      change.brainId = brainId;
      change.changeKind = PendingChangeKind::mkdir;
      change.path = place.nodePath;
      change.baseCursor = store.cursor(brainId);
      change.createdAt = now;
      change.id = store.enqueue(change);
      note(change);
    }
    // The store names a folder after its path, so the row has the key the
    // folder's node will have.
    folderRow("dir:" + place.nodePath, 0);
    return true;
  }

  // --- The top of the mirror ---------------------------------------------------------

  // An item made outside every brain's folder goes into the inbox brain's.
  void toInbox(const Place& place, const FileState& state) {
    // An item a refused move left here is known to the index.
    if (!index.entriesUnder(place.path).empty()) return;
    const std::optional<Uuid> inboxBrain = inboxId();
    auto folder = inboxBrain ? folders.find(*inboxBrain) : folders.end();
    if (folder == folders.end()) {
      return refuse(place.path, synckit::UploadPlanError::noInboxBrain().description());
    }
    const std::string name = freeName(*inboxBrain, place.name(), state.isDirectory);
    const synckit::CreatePlan plan = synckit::UploadPlanner::planCreate(
        SyncItemIdentifier::brain(*inboxBrain), std::nullopt, name, state.isDirectory, inboxBrain);
    if (const auto* rejected = plan.as<synckit::CreatePlan::Rejected>()) {
      return refuse(place.path, rejected->error.description());
    }
    if (plan.kind() == synckit::CreatePlan::Kind::localOnly) return;
    const Place target = locate(folder->second + "/" + name);
    store.recordOwnWrite(*inboxBrain, name);
    mirror.rename(place.path, target.path);
    owner.log_.info("Moved \u201c%s\u201d into the inbox brain as \u201c%s\u201d",
                    place.path.c_str(), target.path.c_str());
    appeared(target, true);
  }

  // `name`, or the first of "name 2", "name 3" … that is free at the top of
  // the brain, on disk and in the store.
  std::string freeName(const Uuid& brainId, const std::string& name, bool isDirectory) {
    const std::string& folder = folders.at(brainId);
    for (int number = 1;; ++number) {
      std::string candidate = number == 1 ? name : numbered(name, number, isDirectory);
      if (!mirror.stat(folder + "/" + candidate).exists && !store.nodeAtPath(brainId, candidate) &&
          !queuedAt(brainId, candidate)) {
        return candidate;
      }
    }
  }

  // --- Moves -----------------------------------------------------------------------

  void moved(const Place& from, const Place& to) {
    std::optional<IndexEntry> row = index.entryAtPath(from.path);
    if (!row) {
      // Not an item the index knows at its source: the provider moved it
      // (the index follows its own moves), or it came from outside.
      auto there = index.entryAtPath(to.path);
      const FileState state = mirror.stat(to.path);
      if (there && state.exists && state.inode == there->inode) return;
      return appeared(to, true);
    }
    const FileState atSource = mirror.stat(from.path);
    if (atSource.exists && atSource.inode == row->inode) return appeared(to, true);  // a copy
    if (from.brainId && from.nodePath.empty()) {
      // A brain's folder is named after the brain: it goes back.
      refuseBrainFolder(from);
      if (!atSource.exists) {
        store.recordOwnWrite(*from.brainId, "");
        mirror.rename(to.path, from.path);
      }
      return;
    }
    if (to.brainId && to.nodePath.empty()) return;

    const Uuid brainId = row->brainId;
    std::optional<NodeRecord> node = nodeOf(*row);
    NodeRecord record;
    if (node) record = *node;
    record.brainId = brainId;
    record.nodeId = row->nodeId;
    record.isDirectory = row->isDirectory;
    if (from.inBrain() && *from.brainId == brainId) {
      record.path = from.nodePath;  // where the item is once the queued changes are done
    } else if (!node) {
      record.path = pathOfUnsynced(*row);
    }

    std::optional<synckit::MovePlan> plan;
    std::string destination = to.path;
    if (to.atTop()) {
      // To the top of the mirror: to the top of the inbox brain.
      plan = synckit::UploadPlanner::planReparent(record, SyncItemIdentifier::root(), std::nullopt,
                                                  inboxId());
      if (plan->kind() == synckit::MovePlan::Kind::move ||
          plan->kind() == synckit::MovePlan::Kind::localOnly) {
        const std::string name = freeName(brainId, to.name(), record.isDirectory);
        plan = synckit::UploadPlanner::planMove(record, name, SyncItemIdentifier::root(),
                                                std::nullopt, inboxId());
        destination = folders.at(brainId) + "/" + name;
      }
    } else if (!to.inBrain()) {
      plan = synckit::MovePlan(synckit::MovePlan::CrossBrainUnsupported{});
    } else {
      auto [parent, parentPath] = parentOfNode(*to.brainId, to.nodePath);
      plan = synckit::UploadPlanner::planMove(record, to.name(), parent, parentPath, inboxId());
    }

    switch (plan->kind()) {
      case synckit::MovePlan::Kind::move: {
        const auto* move = plan->as<synckit::MovePlan::Move>();
        if (auto replaced = index.entryAtPath(destination);
            replaced && replaced->brainId == brainId && replaced->nodeId != row->nodeId) {
          removeItem(locate(destination), *replaced);  // moved over another item
        }
        const std::optional<std::string> nodeId =
            node ? std::optional<std::string>(node->nodeId) : std::nullopt;
        const std::int64_t id = synckit::LocalMutations::journalMove(
            store, brainId, nodeId, move->fromPath, move->toPath, now);
        PendingChange change =
            journalled(id, brainId, PendingChangeKind::move, move->toPath, nodeId);
        change.fromPath = move->fromPath;
        note(change);
        break;
      }
      case synckit::MovePlan::Kind::localOnly: {
        const auto* move = plan->as<synckit::MovePlan::LocalOnly>();
        synckit::LocalMutations::applyMove(store, brainId, move->fromPath, move->toPath,
                                           std::nullopt, now);
        break;
      }
      case synckit::MovePlan::Kind::rejected:
        refuse(to.path, plan->as<synckit::MovePlan::Rejected>()->error.description());
        break;
      case synckit::MovePlan::Kind::crossBrainUnsupported:
        refuse(to.path, std::string(synckit::UploadPlanner::crossBrainMessage));
        break;
      case synckit::MovePlan::Kind::noChange:
        break;
    }
    if (destination != to.path) {
      store.recordOwnWrite(brainId, std::string(locate(destination).nodePath));
      mirror.rename(to.path, destination);
    }
    // The rows follow the item wherever it stays, so that it is known there.
    index.transaction([&] {
      for (const IndexEntry& stale : index.entriesUnder(destination)) {
        index.remove(stale.brainId, stale.nodeId);
      }
      index.movePrefix(from.path, destination);
    });
    // A file may have changed on its way (or be another file that took
    // the moved one's inode, as a rescan sees it).
    appeared(locate(destination), false);
  }

  // The store's node of a row; none for a file queued for creation or a
  // folder not recorded yet.
  std::optional<NodeRecord> nodeOf(const IndexEntry& row) {
    if (isPlaceholder(row.nodeId)) return std::nullopt;
    return store.nodeWithId(row.brainId, row.nodeId);
  }

  // The brain-relative path of an item the server does not have yet.
  std::string pathOfUnsynced(const IndexEntry& row) {
    if (isPlaceholder(row.nodeId)) {
      const std::string id = row.nodeId.substr(placeholderPrefix.size());
      if (auto change = store.pendingChange(std::stoll(id))) return change->path;
    }
    if (row.nodeId.starts_with("dir:")) return row.nodeId.substr(4);
    const std::string& folder = folders.at(row.brainId);
    return isAtOrBelow(row.path, folder) ? row.path.substr(folder.size() + 1) : row.path;
  }

  // --- Removals --------------------------------------------------------------------

  void removed(const Place& place) {
    if (mirror.stat(place.path).exists) return;  // back again: its own event follows
    if (place.brainId && place.nodePath.empty()) {
      // Nothing is deleted for a brain's folder: the updater lays the
      // brain out afresh, as for a brain it has not seen.
      refuseBrainFolder(place);
      index.transaction([&] {
        for (const IndexEntry& gone : index.entriesUnder(place.path)) {
          index.remove(gone.brainId, gone.nodeId);
        }
        index.setBrainFolder(*place.brainId, std::nullopt);
      });
      return;
    }
    std::optional<IndexEntry> row = index.entryAtPath(place.path);
    if (row) removeItem(place, *row);
  }

  // The item of `row`, at `place`, is gone: one delete for it and
  // everything below it.
  void removeItem(const Place& place, const IndexEntry& row) {
    const Uuid& brainId = row.brainId;
    const std::optional<NodeRecord> node = nodeOf(row);
    const std::string path = place.inBrain() && *place.brainId == brainId
                                 ? place.nodePath
                                 : (node ? node->path : pathOfUnsynced(row));
    if (node && node->localOnly) {
      synckit::LocalMutations::applyDelete(store, brainId, path, std::nullopt, now);
    } else if (row.isDirectory && !knownToServer(brainId, path)) {
      // Folders exist on the server only through their files: a folder
      // without any is forgotten here, its queued mkdir with it.
      store.writeTransaction([&] {
        for (const PendingChange& change : store.pendingChanges(brainId)) {
          if (change.id && change.changeKind == PendingChangeKind::mkdir &&
              isAtOrBelow(change.path, path)) {
            store.removePendingChange(*change.id);
          }
        }
        synckit::LocalMutations::applyDelete(store, brainId, path, std::nullopt, now);
      });
    } else {
      const std::optional<std::string> nodeId =
          node ? std::optional<std::string>(node->nodeId) : std::nullopt;
      const std::int64_t id =
          synckit::LocalMutations::journalDelete(store, brainId, nodeId, path, now);
      note(journalled(id, brainId, PendingChangeKind::delete_, path, nodeId));
    }
    index.transaction([&] {
      for (const IndexEntry& gone : index.entriesUnder(place.path)) {
        index.remove(gone.brainId, gone.nodeId);
      }
    });
  }

  // Whether the server may have something at or below `path`: a file node
  // there, or a queued change other than a new folder.
  bool knownToServer(const Uuid& brainId, const std::string& path) {
    for (const NodeRecord& node : store.subtree(brainId, path)) {
      if (!node.isDirectory && !node.localOnly) return true;
    }
    for (const PendingChange& change : store.pendingChanges(brainId)) {
      if (change.changeKind == PendingChangeKind::mkdir) continue;
      if (isAtOrBelow(change.path, path) ||
          (change.fromPath && isAtOrBelow(*change.fromPath, path))) {
        return true;
      }
    }
    return false;
  }
};

LocalJournal::LocalJournal(synckit::MetadataStore& store, synckit::LocalIndex& index,
                           MirrorRoot& mirror, synckit::ConflictSpool spool, synckit::Logger log)
    : store_(store),
      index_(index),
      mirror_(mirror),
      spool_(std::move(spool)),
      log_(std::move(log)) {}

LocalJournal::Outcome LocalJournal::recoverBrainFolders() {
  Batch batch(*this);
  std::vector<std::string> topFolders;
  for (const std::string& name : mirror_.list("")) {
    if (!batch.brainAt.contains(name) && mirror_.stat(name).isDirectory) topFolders.push_back(name);
  }
  for (const auto& [brainId, folder] : batch.folders) {
    if (mirror_.stat(folder).exists) continue;
    const auto place = batch.locate(folder);
    batch.refuseBrainFolder(place);
    // The brain's items directly in its folder, by name and inode.
    std::vector<IndexEntry> rows = index_.entriesUnder(folder);
    std::erase_if(rows, [&](const IndexEntry& row) {
      return row.path.find('/', folder.size() + 1) != std::string::npos;
    });
    const auto renamedTo = std::find_if(topFolders.begin(), topFolders.end(), [&](const auto& top) {
      return std::any_of(rows.begin(), rows.end(), [&](const IndexEntry& row) {
        const FileState state = mirror_.stat(top + row.path.substr(folder.size()));
        return state.exists && state.inode == row.inode;
      });
    });
    if (renamedTo != topFolders.end()) {
      try {
        store_.recordOwnWrite(brainId, "");
        mirror_.rename(*renamedTo, folder);
        log_.info("Renamed \u201c%s\u201d back to \u201c%s\u201d, the folder of a brain",
                  renamedTo->c_str(), folder.c_str());
        topFolders.erase(renamedTo);
        continue;
      } catch (const synckit::Error& error) {
        log_.error("Could not rename \u201c%s\u201d back to \u201c%s\u201d: %s", renamedTo->c_str(),
                   folder.c_str(), error.what());
      }
    }
    index_.transaction([&] {
      for (const IndexEntry& gone : index_.entriesUnder(folder)) {
        index_.remove(gone.brainId, gone.nodeId);
      }
      index_.setBrainFolder(brainId, std::nullopt);
    });
  }
  return std::move(batch.outcome);
}

LocalJournal::Outcome LocalJournal::apply(const std::vector<LocalChange>& changes) {
  Batch batch(*this);
  for (const LocalChange& change : changes) batch.apply(change);
  return std::move(batch.outcome);
}

}  // namespace halvark::provider
