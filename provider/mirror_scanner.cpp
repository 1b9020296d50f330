#include "provider/mirror_scanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "provider/mirror_names.h"
#include "provider/mirror_path_error.h"
#include "provider/mirror_root.h"
#include "synckit/base/crypto.h"
#include "synckit/base/error.h"
#include "synckit/store/local_index.h"

namespace halvark::provider::MirrorScanner {
namespace {

using synckit::IndexEntry;
using Location = synckit::LocalIndex::Location;
using Fd = MirrorRoot::Fd;

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isBelow(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' && path.starts_with(folder);
}
bool isWithin(std::string_view path, std::string_view folder) {
  return path == folder || isBelow(path, folder);
}
std::string_view parentOf(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}
std::string_view nameOf(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}
std::string_view topOf(std::string_view path) { return path.substr(0, path.find('/')); }

std::int64_t nanoseconds(const struct timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// One file or folder found on disk. Items are kept in walk order, so a
// folder's descendants are the items right after it, up to `end`.
struct DiskItem {
  std::string path;
  std::int64_t size = 0;
  std::int64_t mtimeNanoseconds = 0;
  std::uint64_t inode = 0;
  bool isDirectory = false;
  bool listed = true;  // a folder whose whole content was seen
  int parent = -1;     // its folder's item; -1 at the top of a brain folder or the mirror
  std::size_t end = 0;
  int entry = -1;         // the index entry it is, once matched
  bool edited = false;    // a matched file whose bytes differ from its entry's
  bool reported = false;  // already part of the changes (a folder made early)
  bool inside = false;    // in a new folder at the top of the mirror
};

// Where each index entry went.
enum class Fate {
  open,     // not matched yet
  stays,    // at its own path
  carried,  // in a moved folder, at the same place relative to it
  moved,    // elsewhere: a move of its own
  removed,
  unseen,  // the scan cannot tell: left alone
};

enum class Occupant { none, file, folder };

// What is where while the changes found so far are applied one after the
// other, starting from the index. Folder moves and removals act on whole
// subtrees and are few; every other change names one path and is looked up
// by it, so a scan with many moved files stays linear.
class Timeline {
 public:
  using Initial = std::function<Occupant(std::string_view)>;
  explicit Timeline(Initial initial) : initial_(std::move(initial)) {}

  void move(std::string from, std::string to, bool isDirectory) {
    add({Kind::move, std::move(from), std::move(to), isDirectory});
  }
  void remove(std::string path, bool isDirectory) {
    add({Kind::remove, std::move(path), {}, isDirectory});
  }
  void create(std::string path, bool isDirectory) {
    add({Kind::create, {}, std::move(path), isDirectory});
  }

  Occupant at(std::string_view path) const {
    std::string place(path);
    std::size_t before = events_.size();
    for (;;) {
      std::optional<std::size_t> latest;
      if (auto found = exact_.find(place); found != exact_.end()) {
        for (auto i = found->second.rbegin(); i != found->second.rend(); ++i) {
          if (*i < before) {
            latest = *i;
            break;
          }
        }
      }
      for (auto i = wide_.rbegin(); i != wide_.rend(); ++i) {
        if (*i >= before) continue;
        if (latest && *i < *latest) break;
        if (touches(events_[*i], place)) {
          latest = *i;
          break;
        }
      }
      if (!latest) return initial_(place);
      const Event& event = events_[*latest];
      const Occupant item = event.isDirectory ? Occupant::folder : Occupant::file;
      if (event.kind == Kind::create) return item;
      if (event.kind == Kind::remove) return Occupant::none;
      if (place == event.to) return item;
      if (!isBelow(place, event.to)) return Occupant::none;  // moved away from here
      // Inside a moved folder: whatever was at the same place before it.
      place = event.from + place.substr(event.to.size());
      before = *latest;
    }
  }

  // Where the item first at `original` is now, after the folder moves so
  // far (an item's own move, when it has one, comes last).
  std::string whereNow(std::string_view original) const {
    std::string place(original);
    for (std::size_t i : wide_) {
      const Event& event = events_[i];
      if (event.kind == Kind::move && isWithin(place, event.from)) {
        place = event.to + place.substr(event.from.size());
      }
    }
    return place;
  }

 private:
  enum class Kind { move, remove, create };
  struct Event {
    Kind kind;
    std::string from;
    std::string to;
    bool isDirectory;
  };

  static bool touches(const Event& event, std::string_view place) {
    return isWithin(place, event.from) || (event.kind == Kind::move && isWithin(place, event.to));
  }

  void add(Event event) {
    const std::size_t index = events_.size();
    if (event.isDirectory && event.kind != Kind::create) {
      wide_.push_back(index);
    } else {
      if (event.kind != Kind::create) exact_[event.from].push_back(index);
      if (event.kind != Kind::remove) exact_[event.to].push_back(index);
    }
    events_.push_back(std::move(event));
  }

  Initial initial_;
  std::vector<Event> events_;
  std::vector<std::size_t> wide_;
  std::unordered_map<std::string, std::vector<std::size_t>> exact_;
};

// The index's rows by path: open addressing over row numbers, so that a
// hundred thousand rows cost no allocation each.
class PathTable {
 public:
  void build(const std::vector<Location>& rows) {
    rows_ = &rows;
    std::size_t size = 16;
    while (size < rows.size() * 2) size *= 2;
    slots_.assign(size, -1);
    for (std::size_t row = 0; row < rows.size(); ++row) {
      std::size_t slot = hash(rows[row].path);
      while (slots_[slot] >= 0) slot = (slot + 1) & (slots_.size() - 1);
      slots_[slot] = static_cast<int>(row);
    }
  }

  // The row at `path`, or -1.
  int find(std::string_view path) const {
    if (slots_.empty()) return -1;
    for (std::size_t slot = hash(path);; slot = (slot + 1) & (slots_.size() - 1)) {
      const int row = slots_[slot];
      if (row < 0 || (*rows_)[row].path == path) return row;
    }
  }

 private:
  std::size_t hash(std::string_view path) const {
    return std::hash<std::string_view>()(path) & (slots_.size() - 1);
  }

  const std::vector<Location>* rows_ = nullptr;
  std::vector<int> slots_;
};

// One change still to be put in order.
struct Step {
  enum class Kind { create, move, remove };
  Kind kind;
  int entry = -1;
  int item = -1;
  bool done = false;
};

struct DirCloser {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

class Scan {
 public:
  Scan(const MirrorRoot& mirror, synckit::LocalIndex& index, const UnsupportedHandler& handler)
      : mirror_(mirror), index_(index), onUnsupported_(handler) {}

  std::vector<LocalChange> run() {
    for (auto& [brainId, folder] : index_.brainFolders()) brainFolders_.insert(std::move(folder));
    // Reading the index takes about as long as walking the disk: both at
    // once. (Should the walk throw, the future waits for the read.)
    auto loading = std::async(std::launch::async, [this] { load(); });
    walk();
    loading.get();
    matchInPlace();
    matchMoves();
    orderMovesAndRemovals();
    addNewAndEdited();
    refreshIndex();
    return std::move(changes_);
  }

 private:
  // --- The index -------------------------------------------------------

  void load() {
    entries_ = index_.locations();
    fates_.assign(entries_.size(), Fate::open);
    placedAt_.assign(entries_.size(), -1);
    entryAt_.build(entries_);
  }

  std::optional<int> parentEntry(int e) const {
    const int parent = entryAt_.find(parentOf(entries_[e].path));
    if (parent < 0) return std::nullopt;
    return parent;
  }

  void place(int e, int item, Fate fate) {
    fates_[e] = fate;
    placedAt_[e] = item;
    disk_[item].entry = e;
  }

  // --- The disk ----------------------------------------------------------

  void unsupported(const std::string& path, const std::string& why) {
    if (onUnsupported_) onUnsupported_(path, why);
  }

  void walk() {
    root_ = mirror_.openDirectory("");
    const Fd& root = root_;
    if (!root) throw MirrorPathError::unusableRoot(mirror_.path().string(), ENOENT);
    auto names = namesIn(root.get());
    if (!names) throw MirrorPathError::systemError(".", "list", errno);
    for (const std::string& name : *names) {
      if (name == MirrorRoot::stagingFolderName) {
        noteStaging(root.get());
        continue;
      }
      if (MirrorNames::isProviderOwned(name)) {
        // Only an item moved aside can be an indexed one; the trash folder
        // may have the inode number of a folder the user removed.
        if (name.starts_with(MirrorNames::movingAsidePrefix)) noteAside(root.get(), name);
        continue;
      }
      struct stat status;
      if (::fstatat(root.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) unsupported(name, inspectError(name, errno));
        continue;
      }
      if (brainFolders_.contains(name)) {
        if (!S_ISDIR(status.st_mode)) {
          unsupported(name, MirrorPathError::notDirectory(name, name).description());
        } else if (walkFolder(root.get(), name, -1)) {
          walkedBrains_.insert(name);
        }
        continue;
      }
      if (!MirrorNames::isSynced(name, S_ISDIR(status.st_mode))) continue;
      const std::size_t first = disk_.size();
      visit(root.get(), name, std::string(name), status, -1);
      // The journal takes a new item here into the inbox brain whole: what
      // it holds is neither reported nor the target of a move.
      for (std::size_t i = first + 1; i < disk_.size(); ++i) disk_[i].inside = true;
    }
  }

  static std::string inspectError(const std::string& path, int code) {
    return MirrorPathError::systemError(path, "inspect", code).description();
  }

  // The names in an open folder, sorted (so that the walk, and every tie
  // it breaks, is the same from one scan to the next); nothing when it
  // cannot be listed.
  static std::optional<std::vector<std::string>> namesIn(int folder) {
    Fd copy(::dup(folder));
    if (!copy) return std::nullopt;
    std::unique_ptr<DIR, DirCloser> directory(::fdopendir(copy.get()));
    if (!directory) return std::nullopt;
    copy.release();
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(directory.get())) {
      std::string_view name = entry->d_name;
      if (name != "." && name != "..") names.emplace_back(name);
    }
    if (errno != 0) return std::nullopt;
    std::sort(names.begin(), names.end());
    return names;
  }

  void noteAside(int folder, const std::string& name) {
    struct stat status;
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
      asideInodes_.insert(static_cast<std::uint64_t>(status.st_ino));
    }
  }

  // Items the updater parked in the staging folder are indexed ones too.
  void noteStaging(int root) {
    Fd staging(::openat(root, std::string(MirrorRoot::stagingFolderName).c_str(), kFolderFlags));
    if (!staging) return;
    if (auto names = namesIn(staging.get())) {
      for (const std::string& name : *names) {
        // A download being staged may have taken the inode number of an
        // item the user removed: it must not pass for that item.
        if (!name.ends_with(MirrorRoot::stagedSuffix)) noteAside(staging.get(), name);
      }
    }
  }

  void visit(int folder, const std::string& name, std::string path, const struct stat& status,
             int parent) {
    if (S_ISDIR(status.st_mode)) {
      const int item = add(std::move(path), status, true, parent);
      const bool listed = walkFolder(folder, name, item);
      disk_[item].listed = listed;
      disk_[item].end = disk_.size();
    } else if (S_ISREG(status.st_mode)) {
      const int item = add(std::move(path), status, false, parent);
      disk_[item].end = disk_.size();
    } else if (S_ISLNK(status.st_mode)) {
      unsupported(path, MirrorPathError::symbolicLink(path, path).description());
    } else {
      unsupported(path, MirrorPathError::notRegularFile(path).description());
    }
  }

  int add(std::string path, const struct stat& status, bool isDirectory, int parent) {
    const int item = static_cast<int>(disk_.size());
    DiskItem& added = disk_.emplace_back();
    added.path = std::move(path);
    added.size = static_cast<std::int64_t>(status.st_size);
    added.mtimeNanoseconds = nanoseconds(status.st_mtim);
    added.inode = static_cast<std::uint64_t>(status.st_ino);
    added.isDirectory = isDirectory;
    added.parent = parent;
    return item;
  }

  // Walks the folder `name` in `parent` (the item `item`, -1 for a brain
  // folder); false when some of it could not be seen.
  bool walkFolder(int parent, const std::string& name, int item) {
    const std::string path = item < 0 ? name : disk_[item].path;
    Fd folder(::openat(parent, name.c_str(), kFolderFlags));
    if (!folder) {
      if (errno != ENOENT) {
        unsupported(path, MirrorPathError::systemError(path, "list", errno).description());
      }
      return false;
    }
    auto names = namesIn(folder.get());
    if (!names) {
      unsupported(path, MirrorPathError::systemError(path, "list", errno).description());
      return false;
    }
    for (const std::string& child : *names) {
      std::string childPath = path + "/" + child;
      // Only the top of a brain folder holds the provider's own items.
      if (item < 0 && MirrorNames::isProviderOwned(childPath)) {
        noteAside(folder.get(), child);
        continue;
      }
      struct stat status;
      if (::fstatat(folder.get(), child.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) continue;
        // A folder that can be listed but not searched: what it holds is
        // unknown rather than gone.
        unsupported(path, MirrorPathError::systemError(path, "list", errno).description());
        return false;
      }
      if (!MirrorNames::isSynced(childPath, S_ISDIR(status.st_mode))) continue;
      visit(folder.get(), child, std::move(childPath), status, item);
    }
    return true;
  }

  // --- Content -----------------------------------------------------------

  enum class Content { same, different, unreadable };

  // Whether the file still holds the bytes the index has the SHA-256 of. A
  // file that changes while it is read differs: the watcher sees it settle.
  Content contentOf(int folder, const char* name, const DiskItem& item, const std::string& hash,
                    int& code) {
    Fd file(::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
      code = errno;
      return code == ENOENT ? Content::different : Content::unreadable;
    }
    struct stat before;
    if (::fstat(file.get(), &before) != 0 || !S_ISREG(before.st_mode) ||
        static_cast<std::uint64_t>(before.st_ino) != item.inode) {
      return Content::different;
    }
    buffer_.resize(1 << 16);
    synckit::Sha256Hasher hasher;
    for (;;) {
      const ssize_t n = ::read(file.get(), buffer_.data(), buffer_.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        code = errno;
        return Content::unreadable;
      }
      if (n == 0) break;
      hasher.update({buffer_.data(), static_cast<std::size_t>(n)});
    }
    struct stat after;
    if (::fstat(file.get(), &after) != 0 || after.st_size != before.st_size ||
        nanoseconds(after.st_mtim) != nanoseconds(before.st_mtim)) {
      return Content::different;
    }
    return synckit::hexLower(hasher.finish()) == hash ? Content::same : Content::different;
  }

  // A matched file: unchanged when it kept its size, mtime and inode, or
  // its bytes; edited otherwise.
  void checkContent(int item) {
    DiskItem& file = disk_[item];
    const Location& entry = entries_[file.entry];
    if (file.size == entry.size && file.mtimeNanoseconds == entry.mtimeNanoseconds &&
        file.inode == entry.inode) {
      return;
    }
    const std::string hash = index_.entryAtPath(entry.path).value_or(IndexEntry{}).contentHash;
    if (hash.empty()) {
      file.edited = true;
      return;
    }
    std::string name;
    int code = 0;
    Content content = Content::different;
    try {
      Fd folder = mirror_.openParent(file.path, name);
      content = contentOf(folder.get(), name.c_str(), file, hash, code);
    } catch (const synckit::Error&) {
      // Changed since the walk: let the journal read what is there now.
    }
    switch (content) {
      case Content::same:
        touched_.push_back(item);
        break;
      case Content::different:
        file.edited = true;
        break;
      case Content::unreadable:
        unsupported(file.path, MirrorPathError::systemError(file.path, "read", code).description());
        break;
    }
  }

  // --- Matching ------------------------------------------------------------

  // An entry of an item's kind at its path is that item.
  void matchInPlace() {
    for (std::size_t i = 0; i < disk_.size(); ++i) {
      const DiskItem& item = disk_[i];
      const int e = entryAt_.find(item.path);
      if (e < 0 || entries_[e].isDirectory != item.isDirectory) continue;
      place(e, static_cast<int>(i), Fate::stays);
      if (!item.isDirectory) checkContent(static_cast<int>(i));
    }
  }

  // Entries not at their own path: carried along with a moved folder, moved
  // by themselves (found by inode), gone, or out of sight.
  void matchMoves() {
    std::unordered_map<std::uint64_t, std::vector<int>> newByInode;
    std::unordered_map<std::string_view, int> newAt;
    for (std::size_t i = 0; i < disk_.size(); ++i) {
      if (disk_[i].entry >= 0 || disk_[i].inside) continue;
      newByInode[disk_[i].inode].push_back(static_cast<int>(i));
      newAt.emplace(disk_[i].path, static_cast<int>(i));
    }
    std::vector<int> open;
    for (std::size_t index = 0; index < entries_.size(); ++index) {
      const int e = static_cast<int>(index);
      if (fates_[e] != Fate::open) continue;
      const Location& entry = entries_[e];
      if (!walkedBrains_.contains(topOf(entry.path)) ||
          !MirrorNames::isSynced(entry.path, entry.isDirectory) ||
          asideInodes_.contains(entry.inode)) {
        fates_[e] = Fate::unseen;
      } else {
        open.push_back(e);
      }
    }
    // By path, so that a folder's fate is known before its content's.
    std::sort(open.begin(), open.end(),
              [&](int a, int b) { return entries_[a].path < entries_[b].path; });
    for (const int e : open) {
      const Location& entry = entries_[e];
      int target = -1;
      Fate fate = Fate::moved;
      if (auto parent = parentEntry(e)) {
        const Fate parentFate = fates_[*parent];
        if (parentFate == Fate::unseen ||
            (placedAt_[*parent] >= 0 && !disk_[placedAt_[*parent]].listed)) {
          fates_[e] = Fate::unseen;
          continue;
        }
        if (parentFate == Fate::carried || parentFate == Fate::moved) {
          std::string expected = disk_[placedAt_[*parent]].path;
          expected += '/';
          expected += nameOf(entry.path);
          if (auto found = newAt.find(expected);
              found != newAt.end() && disk_[found->second].entry < 0 &&
              disk_[found->second].isDirectory == entry.isDirectory) {
            target = found->second;
            fate = Fate::carried;
          }
        }
      }
      if (target < 0) {
        if (auto found = newByInode.find(entry.inode); found != newByInode.end()) {
          for (int candidate : found->second) {
            if (disk_[candidate].entry < 0 && sameItem(e, candidate)) {
              target = candidate;
              break;
            }
          }
        }
      }
      if (target < 0) {
        fates_[e] = Fate::removed;
        continue;
      }
      place(e, target, fate);
      if (!entry.isDirectory) checkContent(target);
    }
  }

  // Whether the new item with the entry's inode number is the entry's item
  // moved, rather than a new one that got a freed number back (which file
  // systems do at once): a moved file keeps its mtime or at least its
  // size; a moved folder still holds one of its items, or is as empty as
  // it was.
  bool sameItem(int e, int item) {
    const Location& entry = entries_[e];
    const DiskItem& found = disk_[item];
    if (found.isDirectory != entry.isDirectory) return false;
    if (!found.isDirectory) {
      return found.mtimeNanoseconds == entry.mtimeNanoseconds || found.size == entry.size;
    }
    bool empty = true;
    for (std::size_t i = static_cast<std::size_t>(item) + 1; i < found.end; i = disk_[i].end) {
      empty = false;
      const int child = entryAt_.find(entry.path + "/" + std::string(nameOf(disk_[i].path)));
      if (child >= 0 && entries_[child].inode == disk_[i].inode &&
          entries_[child].isDirectory == disk_[i].isDirectory) {
        return true;
      }
    }
    return empty && !hasChildren(e);
  }

  bool hasChildren(int e) {
    if (withChildren_.empty()) {
      withChildren_.assign(entries_.size(), false);
      for (std::size_t child = 0; child < entries_.size(); ++child) {
        if (auto parent = parentEntry(static_cast<int>(child))) withChildren_[*parent] = true;
      }
    }
    return withChildren_[e];
  }

  // --- Order ---------------------------------------------------------------

  Occupant initially(std::string_view path) const {
    if (const int e = entryAt_.find(path); e >= 0) {
      return entries_[e].isDirectory ? Occupant::folder : Occupant::file;
    }
    if (path.empty() || brainFolders_.contains(path)) return Occupant::folder;
    return Occupant::none;
  }

  bool folderAt(std::string_view path) const {
    return path.empty() || timeline_.at(path) == Occupant::folder;
  }

  bool movesPendingBelow(const std::string& path) const {
    auto next = pendingSources_.lower_bound(path + "/");
    return next != pendingSources_.end() && isBelow(*next, path);
  }

  bool ready(const Step& step) const {
    switch (step.kind) {
      case Step::Kind::create: {
        const std::string& path = disk_[step.item].path;
        return timeline_.at(path) == Occupant::none && folderAt(parentOf(path));
      }
      case Step::Kind::move: {
        const std::string from = timeline_.whereNow(entries_[step.entry].path);
        const std::string& to = disk_[step.item].path;
        if (from == to) return true;
        if (isBelow(to, from)) return false;
        return timeline_.at(to) == Occupant::none && folderAt(parentOf(to));
      }
      case Step::Kind::remove:
        return !movesPendingBelow(entries_[step.entry].path);
    }
    return false;
  }

  void apply(Step& step) {
    step.done = true;
    switch (step.kind) {
      case Step::Kind::create: {
        const DiskItem& item = disk_[step.item];
        if (reportNew(step.item)) timeline_.create(item.path, item.isDirectory);
        return;
      }
      case Step::Kind::move: {
        const Location& entry = entries_[step.entry];
        pendingSources_.erase(entry.path);
        std::string from = timeline_.whereNow(entry.path);
        const std::string& to = disk_[step.item].path;
        if (from == to) return;
        changes_.push_back({LocalChange::Kind::moved, to, from, entry.isDirectory});
        timeline_.move(std::move(from), to, entry.isDirectory);
        return;
      }
      case Step::Kind::remove: {
        const Location& entry = entries_[step.entry];
        // A folder above it went after all (see giveUpMove): one removal.
        if (auto parent = parentEntry(step.entry); parent && fates_[*parent] == Fate::removed) {
          return;
        }
        std::string path = timeline_.whereNow(entry.path);
        changes_.push_back({LocalChange::Kind::removed, path, std::nullopt, entry.isDirectory});
        timeline_.remove(std::move(path), entry.isDirectory);
        return;
      }
    }
  }

  void addRemoval(int e) {
    auto parent = parentEntry(e);
    if (!parent || fates_[*parent] != Fate::removed) {
      steps_.push_back({Step::Kind::remove, e, -1});
    }
  }

  // The changes that depend on each other, applied in an order that works:
  // moves by target (a folder before what goes into it), a new folder before
  // a move into it, a removal once nothing has still to move out of it, and
  // any of them only once its place is free. Whatever still waits on
  // another in a circle (two items trading places while offline, say) is
  // taken apart: one move becomes a removal and a new item.
  void orderMovesAndRemovals() {
    std::vector<bool> needed(disk_.size(), false);
    for (std::size_t e = 0; e < entries_.size(); ++e) {
      if (fates_[e] != Fate::moved) continue;
      steps_.push_back({Step::Kind::move, static_cast<int>(e), placedAt_[e]});
      pendingSources_.insert(entries_[e].path);
      for (int up = disk_[placedAt_[e]].parent; up >= 0 && disk_[up].entry < 0 && !needed[up];
           up = disk_[up].parent) {
        needed[up] = true;
        steps_.push_back({Step::Kind::create, -1, up});
      }
    }
    for (std::size_t e = 0; e < entries_.size(); ++e) {
      if (fates_[e] == Fate::removed) addRemoval(static_cast<int>(e));
    }
    if (steps_.empty()) return;
    auto key = [&](const Step& step) -> std::pair<int, std::string_view> {
      if (step.kind == Step::Kind::remove) return {1, entries_[step.entry].path};
      return {0, disk_[step.item].path};
    };
    std::sort(steps_.begin(), steps_.end(),
              [&](const Step& a, const Step& b) { return key(a) < key(b); });

    for (;;) {
      bool progress = false;
      bool left = false;
      for (std::size_t i = 0; i < steps_.size(); ++i) {
        if (steps_[i].done) continue;
        if (ready(steps_[i])) {
          apply(steps_[i]);
          progress = true;
        } else {
          left = true;
        }
      }
      if (!left) return;
      if (progress) continue;
      auto stuck = std::find_if(steps_.begin(), steps_.end(), [](const Step& step) {
        return !step.done && step.kind == Step::Kind::move;
      });
      if (stuck != steps_.end()) {
        giveUpMove(static_cast<std::size_t>(stuck - steps_.begin()));
      } else {
        // Only an item the scan could not see holds the place: report the
        // change anyway and let the journal refuse it.
        auto first =
            std::find_if(steps_.begin(), steps_.end(), [](const Step& step) { return !step.done; });
        apply(*first);
      }
    }
  }

  // Turns a move into the removal of the entry and a new item at its
  // target; a folder's content that came with it becomes new too.
  void giveUpMove(std::size_t index) {
    const int e = steps_[index].entry;
    const int item = steps_[index].item;
    steps_[index].done = true;
    pendingSources_.erase(entries_[e].path);
    std::vector<int> unplaced{item};
    for (std::size_t i = static_cast<std::size_t>(item) + 1; i < disk_[item].end; ++i) {
      const DiskItem& inside = disk_[i];
      if (inside.entry >= 0 && fates_[inside.entry] == Fate::carried &&
          std::find(unplaced.begin(), unplaced.end(), inside.parent) != unplaced.end()) {
        unplaced.push_back(static_cast<int>(i));
      }
    }
    for (int i : unplaced) {
      DiskItem& unplacedItem = disk_[i];
      fates_[unplacedItem.entry] = Fate::removed;
      placedAt_[unplacedItem.entry] = -1;
      unplacedItem.entry = -1;
      unplacedItem.edited = false;
      steps_.push_back({Step::Kind::create, -1, i});
    }
    addRemoval(e);
  }

  // New items not reported yet and edited files, by path.
  void addNewAndEdited() {
    std::vector<int> items;
    for (std::size_t i = 0; i < disk_.size(); ++i) {
      const DiskItem& item = disk_[i];
      if ((item.entry < 0 && !item.reported && !item.inside) || (item.entry >= 0 && item.edited)) {
        items.push_back(static_cast<int>(i));
      }
    }
    std::sort(items.begin(), items.end(),
              [&](int a, int b) { return disk_[a].path < disk_[b].path; });
    for (int i : items) {
      if (disk_[i].entry < 0) {
        reportNew(i);
      } else {
        changes_.push_back({LocalChange::Kind::written, disk_[i].path, std::nullopt, false});
      }
    }
  }

  // Reports a new item, unless it is a file that cannot be read (which the
  // journal could not upload either).
  bool reportNew(int index) {
    DiskItem& item = disk_[index];
    item.reported = true;
    // Only a check: the journal reads the file without following links.
    if (!item.isDirectory &&
        ::faccessat(root_.get(), item.path.c_str(), R_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) != 0 &&
        errno == EACCES) {
      unsupported(item.path, MirrorPathError::systemError(item.path, "read", EACCES).description());
      return false;
    }
    changes_.push_back(
        {item.isDirectory ? LocalChange::Kind::madeFolder : LocalChange::Kind::written, item.path,
         std::nullopt, item.isDirectory});
    return true;
  }

  // Touched files, and folders that were made again under the same name,
  // are what the index says from now on: the next scan need not read them,
  // and the updater can tell them from local edits.
  void refreshIndex() {
    std::vector<int> items;
    for (int item : touched_) {
      if (disk_[item].entry >= 0) items.push_back(item);
    }
    for (std::size_t e = 0; e < entries_.size(); ++e) {
      if (placedAt_[e] >= 0 && entries_[e].isDirectory &&
          disk_[placedAt_[e]].inode != entries_[e].inode) {
        items.push_back(placedAt_[e]);
      }
    }
    if (items.empty()) return;
    index_.transaction([&] {
      for (int item : items) {
        const DiskItem& found = disk_[item];
        auto row = index_.entryAtPath(entries_[found.entry].path);
        if (!row) continue;
        row->size = found.size;
        row->mtimeNanoseconds = found.mtimeNanoseconds;
        row->inode = found.inode;
        index_.put(*row);
      }
    });
  }

  const MirrorRoot& mirror_;
  synckit::LocalIndex& index_;
  const UnsupportedHandler& onUnsupported_;

  Fd root_;
  std::vector<Location> entries_;
  std::vector<Fate> fates_;
  std::vector<int> placedAt_;
  PathTable entryAt_;
  std::set<std::string, std::less<>> brainFolders_;
  std::set<std::string, std::less<>> walkedBrains_;
  std::unordered_set<std::uint64_t> asideInodes_;
  std::vector<DiskItem> disk_;
  std::vector<int> touched_;
  std::vector<bool> withChildren_;  // by entry, worked out when first asked
  std::vector<std::uint8_t> buffer_;

  Timeline timeline_{[this](std::string_view path) { return initially(path); }};
  std::vector<Step> steps_;
  std::set<std::string, std::less<>> pendingSources_;
  std::vector<LocalChange> changes_;
};

}  // namespace

std::vector<LocalChange> scan(const MirrorRoot& mirror, synckit::LocalIndex& index,
                              const UnsupportedHandler& onUnsupported) {
  return Scan(mirror, index, onUnsupported).run();
}

}  // namespace halvark::provider::MirrorScanner
