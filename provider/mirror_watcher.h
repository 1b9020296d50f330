#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "provider/mirror_root.h"

struct inotify_event;

namespace halvark::provider {

// Watches every folder of the mirror with inotify and reports what happens
// in them as events with mirror-relative paths. Folders made or moved into
// the mirror are watched as they appear, and what they already hold when
// the watch starts is reported as found, since a file can land in a new
// folder before its watch exists. A folder renamed within the mirror keeps
// its watches under the new path; one moved out of the mirror is no longer
// watched once its rename is seen to have no second half.
//
// Folders are opened without following symbolic links, and only folders
// are watched. The staging folder is watched for renames only, so that an
// update's renames out of it can be told apart from items moved in.
//
// The events are raw: a save may be a dozen of them. SettleQueue turns
// them into changes. Lost events (the kernel's queue overflowed, or
// injectOverflow()) show as Batch::overflowed, after which the watches are
// renewed and the caller rescans.
//
// One thread uses an instance.
class MirrorWatcher {
 public:
  struct Event {
    enum class Kind {
      created,     // a file or folder appeared (made, linked)
      found,       // already there when its folder was first watched: new or not
      modified,    // a file's content was written
      closed,      // a file opened for writing was closed
      attributes,  // a file's times, permissions or links changed
      movedFrom,   // the first half of a rename: the item left `path`
      movedTo,     // the second half: the item arrived at `path`
      removed,     // the item at `path` was deleted
    };

    Kind kind = Kind::created;
    std::string path;
    bool isDirectory = false;
    // Pairs a movedFrom with its movedTo; 0 for other kinds.
    std::uint32_t cookie = 0;

    bool operator==(const Event&) const = default;
  };

  // A folder that could not be watched, and the errno value why: ENOSPC
  // when the user's inotify watches are used up, EACCES when it cannot be
  // read.
  struct Unwatched {
    std::string path;
    int code = 0;

    bool operator==(const Unwatched&) const = default;
  };

  struct Batch {
    std::vector<Event> events;
    // Events were lost: the watches were renewed, and the mirror must be
    // rescanned; `events` then holds what came after.
    bool overflowed = false;

    bool operator==(const Batch&) const = default;
  };

  // Watches every folder below the root (which `mirror` must outlive).
  // Throws PosixError when inotify or the root cannot be used.
  explicit MirrorWatcher(const MirrorRoot& mirror);
  MirrorWatcher(const MirrorWatcher&) = delete;
  MirrorWatcher& operator=(const MirrorWatcher&) = delete;

  // Readable (poll) when events wait.
  int fd() const noexcept { return inotify_.get(); }

  // The events that wait now, in the order they happened; never blocks.
  Batch read();

  // Makes the next read() report an overflow, as when the kernel drops
  // events.
  void injectOverflow() noexcept { overflowInjected_ = true; }

  // Folders that could not be watched since the last call.
  std::vector<Unwatched> takeUnwatched();

  std::size_t watchCount() const noexcept { return pathOf_.size(); }

 private:
  // A folder renamed away whose rename has not been completed yet.
  struct Departure {
    std::string path;
    std::vector<int> watches;  // the folder's and those below it
    std::uint64_t readNumber = 0;
  };

  void handle(const ::inotify_event& raw, Batch& batch);
  // Watches `path` and every folder below it; with `report`, what they hold
  // is added to `batch` as found.
  void watchTree(const std::string& path, Batch* report);
  int watchFolder(int folderFd, const std::string& path);
  void forget(int wd);
  std::vector<int> watchesBelow(const std::string& path) const;
  void renewAll();

  const MirrorRoot& mirror_;
  MirrorRoot::Fd inotify_;
  MirrorRoot::Fd root_;
  std::unordered_map<int, std::string> pathOf_;
  std::map<std::string, int> watchAt_;
  std::unordered_map<std::uint32_t, Departure> departures_;
  std::vector<Unwatched> unwatched_;
  std::uint64_t readNumber_ = 0;
  bool overflowInjected_ = false;
  bool procFdWorks_ = true;
};

}  // namespace halvark::provider
