#include "provider/mirror_watcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "synckit/base/error.h"
#include "synckit/platform/provider_paths.h"

namespace halvark::provider {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

constexpr std::uint32_t kFolderMask = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB |
                                      IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE | IN_ONLYDIR |
                                      IN_EXCL_UNLINK;
// Downloads are written in the staging folder by the thousand; only the
// renames that take them out (or park an item there) say anything.
constexpr std::uint32_t kStagingMask = IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR | IN_EXCL_UNLINK;

// Reads per read() call: under a storm of events the loop gets back to its
// timers between rounds instead of draining the queue for ever.
constexpr int kReadsPerCall = 16;

const std::string kStaging(synckit::ProviderPaths::stagingFolderName);

std::string childOf(const std::string& folder, std::string_view name) {
  return folder.empty() ? std::string(name) : folder + "/" + std::string(name);
}

bool isBelowOrAt(std::string_view path, std::string_view folder) {
  if (folder.empty()) return true;
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace

MirrorWatcher::MirrorWatcher(const MirrorRoot& mirror)
    : mirror_(mirror), inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) throw synckit::PosixError(errno);
  root_ = mirror_.openDirectory("");
  if (!root_) throw synckit::PosixError(ENOENT);
  watchTree("", nullptr);
}

std::vector<MirrorWatcher::Unwatched> MirrorWatcher::takeUnwatched() {
  return std::exchange(unwatched_, {});
}

MirrorWatcher::Batch MirrorWatcher::read() {
  ++readNumber_;
  Batch batch;
  batch.overflowed = std::exchange(overflowInjected_, false);
  alignas(struct inotify_event) char buffer[64 * 1024];
  for (int round = 0; round < kReadsPerCall; ++round) {
    const ssize_t size = ::read(inotify_.get(), buffer, sizeof buffer);
    if (size < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) break;
      throw synckit::PosixError(errno);
    }
    for (ssize_t at = 0; at < size;) {
      const auto* raw = reinterpret_cast<const struct inotify_event*>(buffer + at);
      handle(*raw, batch);
      at += static_cast<ssize_t>(sizeof(struct inotify_event) + raw->len);
    }
    if (static_cast<std::size_t>(size) < sizeof buffer / 2) break;
  }
  if (batch.overflowed) {
    // What came before the loss says nothing certain; the caller rescans
    // from watches made afresh.
    batch.events.clear();
    renewAll();
    return batch;
  }
  // A folder renamed away whose second half has not come in this read or
  // the one after left the mirror: its watches would report from outside.
  for (auto it = departures_.begin(); it != departures_.end();) {
    if (it->second.readNumber >= readNumber_) {
      ++it;
      continue;
    }
    for (int wd : it->second.watches) {
      const auto path = pathOf_.find(wd);
      if (path == pathOf_.end() || !isBelowOrAt(path->second, it->second.path)) continue;
      ::inotify_rm_watch(inotify_.get(), wd);
      forget(wd);
    }
    it = departures_.erase(it);
  }
  return batch;
}

void MirrorWatcher::handle(const struct inotify_event& raw, Batch& batch) {
  if ((raw.mask & IN_Q_OVERFLOW) != 0) {
    batch.overflowed = true;
    return;
  }
  if ((raw.mask & IN_IGNORED) != 0) {
    forget(raw.wd);
    return;
  }
  const auto folder = pathOf_.find(raw.wd);
  // Events of the folder itself (deleted, moved) are reported by its parent.
  if (folder == pathOf_.end() || raw.len == 0 || raw.name[0] == '\0') return;
  const std::string path = childOf(folder->second, raw.name);
  const bool isDirectory = (raw.mask & IN_ISDIR) != 0;
  using Kind = Event::Kind;

  if ((raw.mask & IN_CREATE) != 0) {
    if (isDirectory && path == kStaging) {
      watchTree(path, nullptr);
      return;
    }
    batch.events.push_back({Kind::created, path, isDirectory, 0});
    if (isDirectory) watchTree(path, &batch);
  } else if ((raw.mask & IN_MODIFY) != 0) {
    if (!isDirectory) batch.events.push_back({Kind::modified, path, false, 0});
  } else if ((raw.mask & IN_CLOSE_WRITE) != 0) {
    batch.events.push_back({Kind::closed, path, false, 0});
  } else if ((raw.mask & IN_ATTRIB) != 0) {
    if (!isDirectory) batch.events.push_back({Kind::attributes, path, false, 0});
  } else if ((raw.mask & IN_DELETE) != 0) {
    batch.events.push_back({Kind::removed, path, isDirectory, 0});
  } else if ((raw.mask & IN_MOVED_FROM) != 0) {
    batch.events.push_back({Kind::movedFrom, path, isDirectory, raw.cookie});
    if (isDirectory) departures_[raw.cookie] = {path, watchesBelow(path), readNumber_};
  } else if ((raw.mask & IN_MOVED_TO) != 0) {
    batch.events.push_back({Kind::movedTo, path, isDirectory, raw.cookie});
    if (!isDirectory) return;
    const auto departure = departures_.find(raw.cookie);
    if (departure == departures_.end()) {
      // From outside the mirror: new to us, content and all.
      watchTree(path, &batch);
      return;
    }
    // Renamed within the mirror: the same watches, under the new path.
    const std::string from = departure->second.path;
    departures_.erase(departure);
    std::vector<std::pair<std::string, int>> moved;
    for (int wd : watchesBelow(from)) moved.emplace_back(pathOf_[wd], wd);
    for (const auto& [old, wd] : moved) {
      if (watchAt_[old] == wd) watchAt_.erase(old);
    }
    for (const auto& [old, wd] : moved) {
      std::string renamed = path + old.substr(from.size());
      watchAt_[renamed] = wd;
      pathOf_[wd] = std::move(renamed);
    }
  }
}

void MirrorWatcher::watchTree(const std::string& path, Batch* report) {
  // Opened one component at a time from the root, never through a link.
  MirrorRoot::Fd folder(::openat(root_.get(), ".", kFolderFlags));
  std::size_t start = 0;
  while (folder && start < path.size()) {
    const std::size_t slash = path.find('/', start);
    const std::string name =
        path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    folder = MirrorRoot::Fd(::openat(folder.get(), name.c_str(), kFolderFlags));
    start = slash == std::string::npos ? path.size() : slash + 1;
  }
  if (!folder) {
    // Gone again, or not a folder (a link): nothing to watch. Anything
    // else is worth knowing.
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) unwatched_.push_back({path, errno});
    return;
  }

  struct Level {
    std::string path;
    MirrorRoot::Fd fd;
  };
  std::vector<Level> stack;
  stack.push_back({path, std::move(folder)});
  while (!stack.empty()) {
    Level level = std::move(stack.back());
    stack.pop_back();
    watchFolder(level.fd.get(), level.path);
    if (level.path == kStaging) continue;

    const int listed = ::dup(level.fd.get());
    DIR* directory = listed < 0 ? nullptr : ::fdopendir(listed);
    if (directory == nullptr) {
      if (listed >= 0) ::close(listed);
      unwatched_.push_back({level.path, errno});
      continue;
    }
    std::vector<std::pair<std::string, bool>> entries;
    while (const dirent* entry = ::readdir(directory)) {
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      bool isDirectory = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN) {
        struct stat status;
        isDirectory = ::fstatat(level.fd.get(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                      S_ISDIR(status.st_mode);
      }
      entries.emplace_back(name, isDirectory);
    }
    ::closedir(directory);
    if (report != nullptr) std::sort(entries.begin(), entries.end());
    std::vector<std::string> folders;
    for (const auto& [name, isDirectory] : entries) {
      const std::string child = childOf(level.path, name);
      if (isDirectory) {
        folders.emplace_back(name);
        if (report != nullptr && child != kStaging) {
          report->events.push_back({Event::Kind::found, child, true, 0});
        }
      } else if (report != nullptr) {
        report->events.push_back({Event::Kind::found, child, false, 0});
      }
    }
    // Reported parents first: the stack takes the last folder first, so
    // push them in reverse to keep the listing's order.
    for (auto name = folders.rbegin(); name != folders.rend(); ++name) {
      MirrorRoot::Fd child(::openat(level.fd.get(), name->c_str(), kFolderFlags));
      if (child) {
        stack.push_back({childOf(level.path, *name), std::move(child)});
      } else if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        unwatched_.push_back({childOf(level.path, *name), errno});
      }
    }
  }
}

int MirrorWatcher::watchFolder(int folderFd, const std::string& path) {
  const std::uint32_t mask = path == kStaging ? kStagingMask : kFolderMask;
  int wd = -1;
  if (procFdWorks_) {
    // The folder as opened, so that a link swapped in since cannot redirect
    // the watch.
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", folderFd);
    wd = ::inotify_add_watch(inotify_.get(), link, mask);
    if (wd < 0 && errno == ENOENT) procFdWorks_ = false;
  }
  if (!procFdWorks_) {
    wd =
        ::inotify_add_watch(inotify_.get(), (mirror_.path() / path).c_str(), mask | IN_DONT_FOLLOW);
  }
  if (wd < 0) {
    unwatched_.push_back({path, errno});
    return -1;
  }
  // The folder may be watched already under the path it had before a
  // rename whose events have not been read yet.
  if (const auto old = pathOf_.find(wd); old != pathOf_.end()) {
    if (const auto at = watchAt_.find(old->second); at != watchAt_.end() && at->second == wd) {
      watchAt_.erase(at);
    }
  }
  pathOf_[wd] = path;
  watchAt_[path] = wd;
  return wd;
}

void MirrorWatcher::forget(int wd) {
  const auto path = pathOf_.find(wd);
  if (path == pathOf_.end()) return;
  if (const auto at = watchAt_.find(path->second); at != watchAt_.end() && at->second == wd) {
    watchAt_.erase(at);
  }
  pathOf_.erase(path);
}

std::vector<int> MirrorWatcher::watchesBelow(const std::string& path) const {
  std::vector<int> watches;
  for (auto it = watchAt_.lower_bound(path); it != watchAt_.end(); ++it) {
    if (!isBelowOrAt(it->first, path)) {
      // "a b" sorts between "a" and "a/b": skip names that only share the
      // prefix, stop past the folder's range.
      if (it->first.starts_with(path) && it->first.size() > path.size() &&
          it->first[path.size()] < '/') {
        continue;
      }
      break;
    }
    watches.push_back(it->second);
  }
  return watches;
}

void MirrorWatcher::renewAll() {
  for (const auto& [wd, path] : pathOf_) ::inotify_rm_watch(inotify_.get(), wd);
  pathOf_.clear();
  watchAt_.clear();
  departures_.clear();
  watchTree("", nullptr);
}

}  // namespace halvark::provider
