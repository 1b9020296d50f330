#include "provider/mirror_updater.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "provider/freedesktop_trash.h"
#include "provider/local_journal.h"
#include "provider/mirror_names.h"
#include "provider/mirror_path_error.h"
#include "provider/mirror_root.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/crypto.h"
#include "synckit/base/error.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/path_rules.h"
#include "synckit/platform/provider_progress.h"
#include "synckit/store/brain_folder_names.h"
#include "synckit/store/local_index.h"
#include "synckit/store/metadata_store.h"

namespace halvark::provider {
namespace {

using synckit::IndexEntry;
using Key = std::pair<synckit::Uuid, std::string>;

Key keyOf(const IndexEntry& entry) { return {entry.brainId, entry.nodeId}; }

bool isBelow(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' && path.starts_with(folder);
}

std::size_t depthOf(std::string_view path) { return std::count(path.begin(), path.end(), '/'); }

// An item that must leave its place before its own target is free waits
// under a temporary name that follows from its identity alone, so that an
// update interrupted between the rename and the index commit finds it
// again: at the top of its brain folder for a node, at the top of the
// mirror for a brain folder.
constexpr std::string_view asidePrefix = MirrorNames::movingAsidePrefix;

std::string asideName(std::string_view identity) {
  return std::string(asidePrefix) + synckit::hexLower(synckit::sha256(identity)).substr(0, 16);
}
std::string asidePath(const std::string& folder, const Key& key) {
  return folder + "/" + asideName(key.second);
}
std::string asidePath(const synckit::Uuid& brainId) { return asideName(brainId.toString()); }
bool isAside(std::string_view folder) { return folder.starts_with(asidePrefix); }

// Whether the item on disk is still exactly what the provider put there.
// A folder's times move with its children, so a folder is known by its
// inode alone.
bool matches(const FileState& state, const IndexEntry& entry) {
  if (!state.exists || state.isSymlink) return false;
  if (entry.isDirectory) return state.isDirectory && state.inode == entry.inode;
  return state.isRegular && state.size == entry.size &&
         state.mtimeNanoseconds == entry.mtimeNanoseconds && state.inode == entry.inode;
}

// The file a row records, as if it were on disk.
FileState recorded(const IndexEntry& entry) {
  return FileState{true, true, false, false, entry.size, entry.mtimeNanoseconds, entry.inode};
}

// Runs body(0) … body(count - 1) on up to `threads` threads, this one
// included; `body` must not throw.
template <class F>
void inParallel(std::size_t count, std::size_t threads, F&& body) {
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t i = next++; i < count; i = next++) body(i);
  };
  std::vector<std::jthread> helpers;
  for (std::size_t t = 1; t < std::min(count, threads); ++t) helpers.emplace_back(work);
  work();
}

IndexEntry entryFor(const Key& key, std::string path, bool isDirectory, std::int64_t contentVersion,
                    const FileState& state, std::string contentHash = {}) {
  return IndexEntry{key.first,
                    key.second,
                    std::move(path),
                    isDirectory,
                    contentVersion,
                    state.size,
                    state.mtimeNanoseconds,
                    state.inode,
                    std::move(contentHash)};
}

}  // namespace

// One update(): what the store wants, what the index knows, and the work in
// between. Lives on the updating thread only.
struct MirrorUpdater::Pass {
  struct Wanted {
    synckit::NodeRecord node;
    std::string path;  // mirror-relative
  };
  // An item that has to move: the row of `from` goes to `target`, and is
  // known as `to` from then on (a folder the store re-created under the
  // identity its new path gives it).
  struct Move {
    Key from;
    Key to;
    std::string target;
    bool isDirectory = false;
    std::size_t depth = 0;
    // Set once it has waited aside for its target; `origin` is where it
    // was before (empty when not known).
    bool waited = false;
    std::string origin;
  };

  MirrorUpdater& owner;
  synckit::MetadataStore& store;
  synckit::LocalIndex& index;
  MirrorRoot& mirror;
  Summary summary;

  std::map<synckit::Uuid, std::string> folders;  // the folder each present brain is in
  std::vector<synckit::Uuid> wholeBrains;        // folders made now: every node is wanted
  std::map<Key, Wanted> wanted;
  std::map<std::string, Key> wantedAtPath;
  std::vector<Key> deleted;
  std::vector<Key> retried;    // on the retry list when the pass began
  std::vector<Key> failed;     // to retry later
  std::vector<Move> deferred;  // aside until what was in their way has gone
  std::int64_t anchor = 0;
  std::chrono::steady_clock::time_point lastProgress{};
  // The files with a journalled edit still waiting for upload, by node id
  // and by brain-relative path; read when first needed.
  std::optional<std::set<Key>> pendingEdits;

  explicit Pass(MirrorUpdater& updater)
      : owner(updater), store(updater.store_), index(updater.index_), mirror(updater.mirror_) {}

  Summary run() {
    mirror.removeStaging();
    applyBrains();
    synckit::checkCancellation();
    collectChanges();
    applyMoves();
    takeOverRows();
    applyDeletes();
    for (const Move& move : std::exchange(deferred, {})) guarded(move.from, [&] { execute(move); });
    synckit::checkCancellation();
    makeFolders();
    downloadFiles();
    finish();
    return summary;
  }

  // --- Reporting -------------------------------------------------------

  bool firstReport(const std::string& path) { return owner.reported_.insert(path).second; }

  void kept(const std::string& path, const std::string& why) {
    ++summary.kept;
    if (firstReport(path))
      owner.log_.info("Kept local item \u201c%s\u201d: %s", path.c_str(), why.c_str());
  }

  void skipped(const synckit::Uuid& brainId, const std::string& nodePath, const std::string& why) {
    ++summary.skipped;
    if (!firstReport(brainId.toString() + ":" + nodePath)) return;
    ++owner.skippedCount_;
    if (nodePath.empty()) {
      owner.log_.error("Skipped the folder of a brain: %s", why.c_str());
    } else {
      owner.log_.error("Skipped \u201c%s\u201d: %s", nodePath.c_str(), why.c_str());
    }
    if (owner.onSkipped_) owner.onSkipped_(brainId, nodePath, why);
  }

  // The first few failures of an update are logged one by one; when the
  // server is down or the session is gone every download fails alike.
  static constexpr int failuresLogged = 10;

  void failure(const Key& key, const std::string& why) {
    failed.push_back(key);
    if (++summary.failed > failuresLogged) return;
    owner.log_.error("Will retry \u201c%s\u201d: %s", nodePathOf(key, key.second).c_str(),
                     why.c_str());
  }

  // Runs one item's disk work. A refused path skips the node, an item in
  // the way is kept, a failing call is retried on a later update; anything
  // else (the store, the index, a cancellation) ends the update.
  template <class F>
  void guarded(const Key& key, F&& body) {
    try {
      body();
    } catch (const MirrorPathError& error) {
      switch (error.reason()) {
        case MirrorPathError::Reason::invalidPath:
        case MirrorPathError::Reason::symbolicLink:
        case MirrorPathError::Reason::notDirectory:
          skipped(key.first, nodePathOf(key, error.path()), error.description());
          break;
        case MirrorPathError::Reason::notRegularFile:
        case MirrorPathError::Reason::alreadyExists:
          kept(error.path(), error.description());
          break;
        default:
          failure(key, error.description());
      }
    } catch (const synckit::FileNotFoundError& error) {
      failure(key, error.description());
    } catch (const synckit::PosixError& error) {
      failure(key, error.description());
    }
  }

  std::string nodePathOf(const Key& key, const std::string& fallback) const {
    if (auto it = wanted.find(key); it != wanted.end()) return it->second.node.path;
    return fallback;
  }

  // --- Own-write marks ---------------------------------------------------

  // The brain-relative path of a mirror path in `folder` ("" for the
  // folder itself); nothing for a path outside it.
  static std::optional<std::string> inBrain(const std::string& folder, std::string_view path) {
    if (path == folder) return std::string();
    if (isBelow(path, folder)) return std::string(path.substr(folder.size() + 1));
    return std::nullopt;
  }

  void mark(const synckit::Uuid& brainId, const std::string& folder, std::string_view path) {
    if (auto relative = inBrain(folder, path)) store.recordOwnWrite(brainId, *relative);
  }
  void mark(const synckit::Uuid& brainId, std::string_view path) {
    if (auto it = folders.find(brainId); it != folders.end()) mark(brainId, it->second, path);
  }

  // Makes `path` and any missing folder above it, each marked first.
  void ensureFolder(const synckit::Uuid& brainId, const std::string& path) {
    std::vector<std::string> missing;
    for (std::string_view ancestor : synckit::PathRules::properAncestors(path)) {
      if (!mirror.stat(ancestor).exists) missing.emplace_back(ancestor);
    }
    if (!mirror.stat(path).exists) missing.push_back(path);
    if (missing.empty()) return;
    store.writeTransaction([&] {
      for (const std::string& folder : missing) mark(brainId, folder);
    });
    mirror.ensureDirectory(path);
  }

  // --- Moving items ------------------------------------------------------

  // The index follows an item (and all below it) from `from` to `to`;
  // rows left at `to` by an item that is no longer there go first.
  void relocateRows(const std::string& from, const std::string& to) {
    index.transaction([&] {
      for (const IndexEntry& stale : index.entriesUnder(to)) {
        index.remove(stale.brainId, stale.nodeId);
      }
      index.movePrefix(from, to);
    });
  }

  void forgetUnder(const std::string& path) {
    index.transaction([&] {
      for (const IndexEntry& row : index.entriesUnder(path)) index.remove(row.brainId, row.nodeId);
    });
  }

  // --- Brains --------------------------------------------------------------

  void applyBrains() {
    const auto names = synckit::brainFolderNames(store.brains());
    const auto known = index.brainFolders();
    for (const auto& [brainId, folder] : known) {
      if (!names.contains(brainId)) removeBrain(brainId, folder);
    }
    // Two brains that trade names: the first one moves aside until the
    // other has left.
    std::vector<std::pair<synckit::Uuid, std::string>> waiting;
    for (const auto& entry : names) {
      const auto& [brainId, name] = entry;
      auto was = known.find(brainId);
      if (was == known.end()) continue;
      folders[brainId] = was->second;
      if (was->second == name) continue;
      const bool otherLeaves = std::any_of(known.begin(), known.end(), [&](const auto& other) {
        auto next = names.find(other.first);
        return other.first != entry.first && other.second == entry.second && next != names.end() &&
               next->second != entry.second;
      });
      if (renameBrain(brainId, name, otherLeaves)) waiting.emplace_back(brainId, was->second);
    }
    for (const auto& [brainId, origin] : waiting) renameBrain(brainId, names.at(brainId), false);
    for (const auto& [brainId, origin] : waiting) {
      // Still in the way: back where it was, if that is free.
      if (isAside(folders[brainId])) renameBrain(brainId, origin, false);
    }
    for (const auto& [brainId, name] : names) {
      if (!known.contains(brainId)) addBrain(brainId, name);
    }
  }

  void addBrain(const synckit::Uuid& brainId, const std::string& name) {
    try {
      if (!mirror.stat(name).exists) store.recordOwnWrite(brainId, "");
      mirror.ensureDirectory(name);
      index.setBrainFolder(brainId, name);
      folders[brainId] = name;
      wholeBrains.push_back(brainId);
    } catch (const MirrorPathError& error) {
      skipped(brainId, "", error.description());
    }
  }

  // Moves a brain's folder to `name`; when `name` is taken and
  // `asideIfTaken`, to its temporary name instead (true then).
  bool renameBrain(const synckit::Uuid& brainId, const std::string& name, bool asideIfTaken) {
    std::string from = folders[brainId];
    const std::string aside = asidePath(brainId);
    try {
      if (!mirror.stat(from).isDirectory) {
        if (from != aside && mirror.stat(aside).isDirectory) {
          // Moved aside by an update that was cut short.
          index.transaction([&] {
            relocateRows(from, aside);
            index.setBrainFolder(brainId, aside);
          });
          folders[brainId] = from = aside;
        } else {
          // Gone, or renamed by an update cut short: the brain starts over
          // under its new name, its rows along, so that whatever is there
          // is recognised and nothing else is overwritten.
          index.transaction([&] {
            relocateRows(from, name);
            index.setBrainFolder(brainId, std::nullopt);
          });
          folders.erase(brainId);
          addBrain(brainId, name);
          return false;
        }
      }
      if (from == name) return false;
      const bool taken = mirror.stat(name).exists;
      if (taken && !(asideIfTaken && from != aside)) {
        kept(name, "it is where the folder \u201c" + from + "\u201d of a brain was to go");
        return false;
      }
      const std::string to = taken ? aside : name;
      store.recordOwnWrite(brainId, "");
      mirror.rename(from, to);
      index.transaction([&] {
        relocateRows(from, to);
        index.setBrainFolder(brainId, to);
      });
      folders[brainId] = to;
      if (!taken) ++summary.moved;
      return taken;
    } catch (const MirrorPathError& error) {
      kept(error.path(), error.description());
      return false;
    }
  }

  void removeBrain(const synckit::Uuid& brainId, const std::string& folder) {
    // A failing call leaves the brain's folder known, to try again next time.
    auto later = [&](const synckit::Error& error) {
      owner.log_.error("Could not remove the folder \u201c%s\u201d: %s", folder.c_str(),
                       error.what());
    };
    try {
      discard(brainId, folder, folder,
              [&](const IndexEntry& row) { return row.brainId == brainId; });
    } catch (const MirrorPathError& error) {
      if (error.reason() == MirrorPathError::Reason::systemError) return later(error);
      kept(folder, error.description());
    } catch (const synckit::FileNotFoundError& error) {
      return later(error);
    } catch (const synckit::PosixError& error) {
      return later(error);
    }
    index.transaction([&] {
      for (const IndexEntry& row : index.entries(brainId)) index.remove(brainId, row.nodeId);
      for (const auto& [retryBrain, nodeId] : index.retries()) {
        if (retryBrain == brainId) index.removeRetry(brainId, nodeId);
      }
      index.setBrainFolder(brainId, std::nullopt);
    });
  }

  // --- What the store wants ------------------------------------------------

  void want(const synckit::NodeRecord& node) {
    auto folder = folders.find(node.brainId);
    if (folder == folders.end() || isAside(folder->second)) return;
    if (!synckit::PathRules::isNormalizedWritePath(node.path)) {
      skipped(node.brainId, node.path, "Its path is not a valid path in a brain.");
      return;
    }
    wanted[{node.brainId, node.nodeId}] = Wanted{node, folder->second + "/" + node.path};
  }

  void collectChanges() {
    const synckit::ChangeSet changes = store.changes(index.anchor());
    anchor = changes.anchor;
    for (const synckit::SyncItem& item : changes.changed) {
      if (item.kind() == synckit::SyncItem::Kind::node) {
        want(std::get<synckit::SyncItem::Node>(item.value).record);
      }
    }
    std::vector<Key> gone;
    for (const synckit::SyncItemIdentifier& identifier : changes.deleted) {
      if (const auto* node = std::get_if<synckit::SyncItemIdentifier::Node>(&identifier.value)) {
        gone.emplace_back(node->brainId, node->nodeId);
      }
    }
    for (auto& [brainId, nodeId] : index.retries()) {
      retried.emplace_back(brainId, nodeId);
      if (auto node = store.nodeWithId(brainId, nodeId)) {
        want(*node);
      } else {
        gone.emplace_back(brainId, nodeId);
      }
    }
    for (const synckit::Uuid& brainId : wholeBrains) {
      for (const synckit::NodeRecord& node : store.nodes(brainId)) want(node);
      for (const IndexEntry& row : index.entries(brainId)) gone.push_back(keyOf(row));
    }
    for (Key& key : gone) {
      if (!wanted.contains(key) && !store.nodeWithId(key.first, key.second)) {
        deleted.push_back(std::move(key));
      }
    }
    std::sort(deleted.begin(), deleted.end());
    deleted.erase(std::unique(deleted.begin(), deleted.end()), deleted.end());
    for (const auto& [key, item] : wanted) wantedAtPath.emplace(item.path, key);
  }

  bool isDeleted(const Key& key) const {
    return std::binary_search(deleted.begin(), deleted.end(), key);
  }

  // A row whose node the server has removed. The row of a file the journal
  // queued for creation has no node yet, and belongs to the user.
  bool doomed(const IndexEntry& row) {
    if (LocalJournal::isPlaceholder(row.nodeId)) return false;
    const Key key = keyOf(row);
    if (wanted.contains(key)) return false;
    return isDeleted(key) || !store.nodeWithId(row.brainId, row.nodeId);
  }

  // Whether the item at a row's path is about to go elsewhere or away.
  bool leaves(const IndexEntry& row) {
    auto it = wanted.find(keyOf(row));
    if (it != wanted.end()) return it->second.path != row.path;
    return doomed(row);
  }

  // --- Moves -----------------------------------------------------------------

  void applyMoves() {
    std::vector<Move> moves;
    for (const auto& [key, item] : wanted) {
      auto row = index.entry(key.first, key.second);
      if (row && row->path != item.path && row->isDirectory == item.node.isDirectory) {
        moves.push_back({key, key, item.path, row->isDirectory, depthOf(row->path), false, {}});
      }
    }
    // A folder the store moved comes back under the identity of its new
    // path; where its indexed files went tells where it went.
    for (const Key& key : deleted) {
      auto row = index.entry(key.first, key.second);
      if (!row || !row->isDirectory) continue;
      if (auto target = movedFolderTarget(*row)) {
        moves.push_back(
            {key, wantedAtPath.at(*target), *target, true, depthOf(row->path), false, {}});
      }
    }
    std::stable_sort(moves.begin(), moves.end(), [](const Move& a, const Move& b) {
      if (a.isDirectory != b.isDirectory) return a.isDirectory;
      return a.depth < b.depth;
    });
    for (const Move& move : moves) {
      synckit::checkCancellation();
      guarded(move.from, [&] { execute(move); });
    }
  }

  std::optional<std::string> movedFolderTarget(const IndexEntry& folder) {
    std::map<std::string, int> votes;
    for (const IndexEntry& child : index.entriesUnder(folder.path)) {
      auto it = wanted.find(keyOf(child));
      if (child.path == folder.path || it == wanted.end()) continue;
      const std::string_view suffix = std::string_view(child.path).substr(folder.path.size());
      const std::string& now = it->second.path;
      if (now.ends_with(suffix)) votes[now.substr(0, now.size() - suffix.size())] += 1;
    }
    std::optional<std::string> best;
    int most = 0;
    for (const auto& [target, count] : votes) {
      if (count > most) best = target, most = count;
    }
    if (!best || *best == folder.path || isBelow(*best, folder.path) ||
        isBelow(folder.path, *best)) {
      return std::nullopt;
    }
    auto at = wantedAtPath.find(*best);
    if (at == wantedAtPath.end() || !wanted.at(at->second).node.isDirectory) return std::nullopt;
    return best;
  }

  // Whether the item at a path is the one a row describes, wherever the
  // row says it is.
  static bool sameItem(const FileState& state, const IndexEntry& row) {
    return state.exists && !state.isSymlink && state.isDirectory == row.isDirectory &&
           state.inode == row.inode;
  }

  void execute(const Move& move) {
    auto row = index.entry(move.from.first, move.from.second);
    auto folder = folders.find(move.from.first);
    if (!row || folder == folders.end()) return;
    std::string source = row->path;
    const synckit::Uuid& brainId = move.from.first;
    const std::string aside = asidePath(folder->second, move.from);
    if (source != move.target && !isBelow(move.target, source)) {
      if (!sameItem(mirror.stat(source), *row)) {
        // An interrupted update may have moved it already, to its target
        // or aside; otherwise it is gone and is made afresh where it belongs.
        if (sameItem(mirror.stat(move.target), *row)) {
          relocateRows(source, move.target);
          return rekey(move);
        }
        if (source == aside || !sameItem(mirror.stat(aside), *row)) return forgetUnder(source);
        relocateRows(source, aside);
        source = aside;
      }
      if (mirror.stat(move.target).exists) {
        auto occupant = index.entryAtPath(move.target);
        if (!move.waited && occupant && keyOf(*occupant) != move.from && leaves(*occupant)) {
          Move later = move;
          later.waited = true;
          later.origin = source == aside ? row->path : source;
          if (later.origin == aside) later.origin.clear();
          if (source != aside) {
            mark(brainId, source);
            mirror.rename(source, aside);
            relocateRows(source, aside);
          }
          deferred.push_back(std::move(later));
          return;
        }
        kept(move.target, "it is in the way of \u201c" +
                              (move.origin.empty() ? source : move.origin) + "\u201d");
        // Still in the way after all: back where it came from, if that is free.
        if (source == aside && !move.origin.empty() && !mirror.stat(move.origin).exists) {
          mark(brainId, move.origin);
          mirror.rename(source, move.origin);
          relocateRows(source, move.origin);
        }
        return;
      }
      ensureFolder(brainId, std::string(parentOf(move.target)));
      store.writeTransaction([&] {
        mark(brainId, source);
        mark(brainId, move.target);
      });
      mirror.rename(source, move.target);
      relocateRows(source, move.target);
      ++summary.moved;
    }
    rekey(move);
  }

  static std::string_view parentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
  }

  void rekey(const Move& move) {
    if (move.to == move.from) return;
    auto row = index.entry(move.from.first, move.from.second);
    if (!row) return;
    index.transaction([&] {
      index.remove(move.from.first, move.from.second);
      row->nodeId = move.to.second;
      index.put(*row);
    });
  }

  // A wanted node with no row of its own, at a path whose row belongs to
  // a removed node of the same kind (an identity the store replaced) or to
  // a file the journal queued for creation (the upload's node): the row
  // becomes the new node's, and the item stays where it is.
  void takeOverRows() {
    index.transaction([&] {
      for (const auto& [key, item] : wanted) {
        if (index.entry(key.first, key.second)) continue;
        auto occupant = index.entryAtPath(item.path);
        if (!occupant || occupant->isDirectory != item.node.isDirectory ||
            !(doomed(*occupant) || LocalJournal::isPlaceholder(occupant->nodeId))) {
          continue;
        }
        index.remove(occupant->brainId, occupant->nodeId);
        occupant->nodeId = key.second;
        index.put(*occupant);
      }
    });
  }

  // --- Removals --------------------------------------------------------------

  void applyDeletes() {
    std::vector<IndexEntry> rows;
    for (const Key& key : deleted) {
      if (auto row = index.entry(key.first, key.second)) rows.push_back(std::move(*row));
    }
    std::sort(rows.begin(), rows.end(),
              [](const IndexEntry& a, const IndexEntry& b) { return a.path < b.path; });
    for (const IndexEntry& row : rows) {
      synckit::checkCancellation();
      // Gone with a folder above it already, or taken over.
      auto current = index.entry(row.brainId, row.nodeId);
      if (!current || !folders.contains(row.brainId)) continue;
      guarded(keyOf(row), [&] {
        discard(row.brainId, folders.at(row.brainId), current->path,
                [&](const IndexEntry& entry) { return doomed(entry); });
      });
    }
  }

  // Whether everything at and below `path` is the provider's own, unchanged
  // and unwanted, so that trashing it loses nothing of the user's.
  template <class Doomed>
  bool removable(const std::string& path, const FileState& state, Doomed& isDoomed) {
    if (state.isSymlink) return false;
    auto row = index.entryAtPath(path);
    if (row && !isDoomed(*row)) return false;
    if (state.isRegular) return row && matches(state, *row);
    if (!state.isDirectory || (row && !row->isDirectory)) return false;
    for (const std::string& name : mirror.list(path)) {
      const std::string child = path + "/" + name;
      if (!removable(child, mirror.stat(child), isDoomed)) return false;
    }
    return true;
  }

  // Moves `path` to the trash when nothing of the user's is in it; else
  // trashes what is safe below it, children first, and keeps the rest.
  // Rows of removed nodes go either way.
  template <class Doomed>
  void discard(const synckit::Uuid& brainId, const std::string& folder, const std::string& path,
               Doomed isDoomed) {
    const FileState state = mirror.stat(path);
    auto forget = [&](bool all) {
      index.transaction([&] {
        for (const IndexEntry& row : index.entriesUnder(path)) {
          if (all || isDoomed(row)) index.remove(row.brainId, row.nodeId);
        }
      });
    };
    if (!state.exists) return forget(false);
    if (removable(path, state, isDoomed)) {
      mark(brainId, folder, path);
      owner.trash_.trash(path);
      ++summary.trashed;
      return forget(true);
    }
    auto row = index.entryAtPath(path);
    if (row && !isDoomed(*row)) return;  // still wanted here
    if (state.isDirectory && !state.isSymlink) {
      for (const std::string& name : mirror.list(path)) {
        discard(brainId, folder, path + "/" + name, isDoomed);
      }
    } else {
      kept(path, row ? "it was changed here after the provider wrote it"
                     : "the provider did not put it there");
    }
    if (row) index.remove(row->brainId, row->nodeId);
  }

  // --- Folders ---------------------------------------------------------------

  void makeFolders() {
    std::vector<std::pair<const Key*, const Wanted*>> folderNodes;
    for (const auto& [key, item] : wanted) {
      if (item.node.isDirectory) folderNodes.emplace_back(&key, &item);
    }
    std::sort(folderNodes.begin(), folderNodes.end(),
              [](const auto& a, const auto& b) { return a.second->path < b.second->path; });
    index.transaction([&] {
      for (const auto& folderNode : folderNodes) {
        const Key* key = folderNode.first;
        const Wanted* item = folderNode.second;
        auto row = index.entry(key->first, key->second);
        if (row && row->path != item->path) continue;  // held back where it was
        guarded(*key, [&] {
          FileState state = mirror.stat(item->path);
          if (!state.exists) {
            ensureFolder(key->first, item->path);
            state = mirror.stat(item->path);
          } else if (!state.isDirectory || state.isSymlink) {
            kept(item->path, "it is where the folder \u201c" + item->node.path + "\u201d belongs");
            return;
          }
          if (!row || !matches(state, *row)) {
            index.put(entryFor(*key, item->path, true, item->node.contentVersion, state));
          }
        });
      }
    });
  }

  // --- Files -----------------------------------------------------------------

  void downloadFiles() {
    std::vector<DownloadJob> jobs;
    for (const auto& entry : wanted) {
      const Key& key = entry.first;
      const Wanted& item = entry.second;
      // A file that exists only here has nothing on the server to fetch.
      if (item.node.isDirectory || item.node.localOnly) continue;
      auto row = index.entry(key.first, key.second);
      if (row && row->path != item.path) continue;  // held back where it was
      guarded(key, [&] {
        const FileState state = mirror.stat(item.path);
        if (row && row->contentVersion == item.node.contentVersion && state.exists) return;
        if (row && item.node.blobHash && *item.node.blobHash == row->contentHash && state.exists) {
          // The server has the bytes the row records (this device's upload):
          // nothing to fetch, the row only moves to the new version.
          row->contentVersion = item.node.contentVersion;
          index.put(*row);
          ++summary.adopted;
          return;
        }
        jobs.push_back(DownloadJob{key.first, key.second, item.node.path, item.path,
                                   item.node.contentVersion, item.node.kind, item.node.blobHash,
                                   item.node.blobSize});
      });
    }
    if (jobs.empty()) return;
    DownloadPool pool(owner.fetch_, mirror, owner.options_.downloadWorkers);
    for (DownloadJob& job : jobs) pool.submit(std::move(job));
    publish(pool.progress(), false, true);
    while (std::optional<DownloadResult> first = pool.next()) {
      std::vector<DownloadResult> batch;
      batch.push_back(std::move(*first));
      for (DownloadResult& more : pool.takeReady()) batch.push_back(std::move(more));
      commit(batch);
      publish(pool.progress(), false, false);
    }
  }

  enum class Action { write, adopt, none };

  // Whether the store holds a journalled create or update of the file,
  // not yet uploaded.
  bool editPending(const Key& key, const std::string& nodePath) {
    if (!pendingEdits) {
      pendingEdits.emplace();
      for (const synckit::PendingChange& change : store.pendingChanges()) {
        if (change.changeKind != synckit::PendingChangeKind::create &&
            change.changeKind != synckit::PendingChangeKind::update) {
          continue;
        }
        pendingEdits->emplace(change.brainId, "/" + change.path);
        if (change.nodeId) pendingEdits->emplace(change.brainId, *change.nodeId);
      }
    }
    return pendingEdits->contains(key) || pendingEdits->contains({key.first, "/" + nodePath});
  }

  // What to do with a download at its path: write it where nothing is or
  // where the provider's unchanged file is, unless an edit of it waits for
  // upload; adopt a file with the same bytes; keep anything else. When the
  // download is what the row records (this device's own upload coming
  // back), the file is adopted if unchanged, and otherwise only the row's
  // version moves (seen is then what the row records), so that a later
  // edit there is not taken for one based on an older version.
  Action decide(const DownloadResult& result, FileState& seen) {
    const DownloadJob& job = result.job;
    const Key key{job.brainId, job.nodeId};
    seen = mirror.stat(job.mirrorPath);
    auto row = index.entry(job.brainId, job.nodeId);
    if (row && row->path != job.mirrorPath) return Action::none;
    if (!seen.exists) return Action::write;
    if (row && !row->isDirectory && row->contentHash == synckit::hexLower(result.digest)) {
      if (!matches(seen, *row)) seen = recorded(*row);
      return Action::adopt;
    }
    if (row && matches(seen, *row)) {
      if (!editPending(key, job.nodePath)) return Action::write;
      kept(job.mirrorPath, "its edit is waiting to be uploaded");
      return Action::none;
    }
    auto occupant = index.entryAtPath(job.mirrorPath);
    if (seen.isRegular && (!occupant || keyOf(*occupant) == key) && seen.size == result.size &&
        synckit::sha256(mirror.read(job.mirrorPath, static_cast<std::size_t>(result.size) + 1)) ==
            result.digest) {
      return Action::adopt;
    }
    kept(job.mirrorPath, seen.isRegular
                             ? "its content differs from the server's version"
                             : "it is where the file \u201c" + job.nodePath + "\u201d belongs");
    return Action::none;
  }

  void commit(std::vector<DownloadResult>& batch) {
    std::vector<std::pair<DownloadResult*, FileState>> writes;
    std::vector<std::pair<DownloadResult*, FileState>> adoptions;
    for (DownloadResult& result : batch) {
      const Key key{result.job.brainId, result.job.nodeId};
      if (result.failure) {
        try {
          std::rethrow_exception(result.failure);
        } catch (const std::exception& error) {
          failure(key, error.what());
        }
        continue;
      }
      guarded(key, [&] {
        FileState seen;
        switch (decide(result, seen)) {
          case Action::write:
            writes.emplace_back(&result, seen);
            break;
          case Action::adopt:
            adoptions.emplace_back(&result, seen);
            break;
          case Action::none:
            break;
        }
      });
    }
    // The marks go first, all in one store transaction. Then the staged
    // bytes reach the disk with one flush of the file system, the renames
    // run side by side, and a second flush puts the renames on disk; only
    // then are the rows written, in one transaction. A crash before
    // that leaves files the next update adopts by their bytes.
    if (!writes.empty()) {
      mirror.flushFileSystem();
      for (const auto& [result, seen] : writes) result->staged->flushedWithFileSystem();
      store.writeTransaction([&] {
        for (const auto& [result, seen] : writes) {
          store.recordOwnWrite(result->job.brainId, result->job.nodePath);
        }
      });
    }
    struct Placed {
      std::optional<FileState> written;
      bool changed = false;
      std::exception_ptr error;
    };
    std::vector<Placed> placed(writes.size());
    inParallel(writes.size(), owner.options_.downloadWorkers, [&](std::size_t i) {
      const auto& [result, seen] = writes[i];
      try {
        // The user may have been quicker than this commit.
        if (mirror.stat(result->job.mirrorPath) != seen) {
          placed[i].changed = true;
        } else {
          placed[i].written = result->staged->commit(result->job.mirrorPath,
                                                     MirrorRoot::StagedFile::FolderFlush::byCaller);
        }
      } catch (...) {
        placed[i].error = std::current_exception();
      }
    });
    // One more flush puts the renames on disk: cheaper than flushing each
    // folder they went into, which costs a journal commit apiece.
    if (std::any_of(placed.begin(), placed.end(),
                    [](const Placed& p) { return p.written.has_value(); })) {
      try {
        mirror.flushFileSystem();
      } catch (...) {
        // Not recorded: the files stay unindexed and are adopted by their
        // bytes on the next update.
        for (Placed& p : placed) {
          if (p.written) p.error = std::current_exception();
        }
      }
    }
    index.transaction([&] {
      for (std::size_t i = 0; i < writes.size(); ++i) {
        const DownloadJob& job = writes[i].first->job;
        const Key key{job.brainId, job.nodeId};
        guarded(key, [&] {
          if (placed[i].error) std::rethrow_exception(placed[i].error);
          if (placed[i].changed) {
            kept(job.mirrorPath, "it changed while its new version was downloading");
            return;
          }
          index.put(entryFor(key, job.mirrorPath, false, job.contentVersion, *placed[i].written,
                             synckit::hexLower(writes[i].first->digest)));
          ++summary.written;
        });
      }
      for (const auto& [result, seen] : adoptions) {
        const DownloadJob& job = result->job;
        index.put(entryFor({job.brainId, job.nodeId}, job.mirrorPath, false, job.contentVersion,
                           seen, synckit::hexLower(result->digest)));
        ++summary.adopted;
      }
    });
  }

  // --- Progress and the end ----------------------------------------------------

  void publish(const DownloadPool::Progress& progress, bool idle, bool force) {
    if (!owner.options_.progressFile) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - lastProgress < owner.options_.progressInterval) return;
    lastProgress = now;
    try {
      synckit::ProviderProgressFile::write(
          *owner.options_.progressFile,
          synckit::ProviderProgress{progress.filesRemaining, progress.bytesRemaining, idle,
                                    synckit::Timestamp::now()});
    } catch (const synckit::Error& error) {
      owner.log_.error("Could not publish the download progress: %s", error.what());
    }
  }

  void finish() {
    if (summary.failed > failuresLogged) {
      owner.log_.error("Will retry %d more", summary.failed - failuresLogged);
    }
    std::sort(failed.begin(), failed.end());
    index.transaction([&] {
      for (const Key& key : retried) {
        if (!std::binary_search(failed.begin(), failed.end(), key)) {
          index.removeRetry(key.first, key.second);
        }
      }
      for (const Key& key : failed) index.addRetry(key.first, key.second);
      index.setAnchor(anchor);
    });
    publish({}, true, true);
  }
};

MirrorUpdater::MirrorUpdater(synckit::MetadataStore& store, synckit::LocalIndex& index,
                             MirrorRoot& mirror, FreedesktopTrash& trash, DownloadPool::Fetch fetch,
                             Options options)
    : store_(store),
      index_(index),
      mirror_(mirror),
      trash_(trash),
      fetch_(std::move(fetch)),
      options_(std::move(options)),
      log_(std::string(synckit::AppIdentity::applicationIdentifier), "provider") {}

MirrorUpdater::Summary MirrorUpdater::update() {
  Pass pass(*this);
  return pass.run();
}

}  // namespace halvark::provider
