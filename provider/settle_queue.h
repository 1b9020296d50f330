#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "provider/local_change.h"
#include "provider/mirror_root.h"
#include "provider/mirror_watcher.h"
#include "synckit/base/clock.h"

namespace halvark::provider {

// Turns the watcher's raw events (and what a rescan found) into changes of
// whole items, once they have settled:
// - a file counts once it was closed after writing and then left alone for
//   `quiet`, or, when its writer keeps it open, once its size and time have
//   not moved for `settle`;
// - a save is one `written` of the document, whatever the editor's steps:
//   a temporary renamed over it, the original renamed to a backup and a new
//   file written, a truncate and rewrite, or a write in place;
// - an item made and removed again before it was reported is not reported
//   at all; editors' temporaries, ignored names and the provider's own
//   places (MirrorNames) never are, and a move out of one of them is a new
//   item, a move into one a removal;
// - the two halves of a rename are paired by their cookie into `moved`;
//   a half without its pair is a move out of the mirror (`removed`) or
//   into it (`written`, or `madeFolder` followed by its content);
// - the provider's own renames out of its staging and parking places are
//   not the user's: they, and whatever they replace, are left out;
// - symbolic links and special files are reported to the unsupported
//   handler instead, and left alone on the server.
//
// Changes come out in the order their items first moved, a folder before
// what is in it; a folder renamed while changes below it wait comes before
// them, and they are expressed under its new path. A change that involves a
// path an earlier, unsettled change also involves waits for it. To batch
// bursts (a copy of a thousand files), settled changes wait until the whole
// mirror has been quiet for `quiet`, or `longestHold` at most.
//
// One thread uses an instance; time comes from the clock.
class SettleQueue {
 public:
  struct Options {
    // How long a closed file, a removal or a rename is left alone: the
    // time a save's later steps take to arrive.
    std::chrono::milliseconds quiet{200};
    // How long a file still open for writing must keep its size and time.
    std::chrono::milliseconds settle{1000};
    // The longest a settled change waits for the mirror to be quiet.
    std::chrono::milliseconds longestHold{1000};

    bool operator==(const Options&) const = default;
  };

  // A mirror-relative path and why it is not uploaded (a sentence naming
  // the path).
  using UnsupportedHandler = std::function<void(const std::string& path, const std::string& why)>;

  // `mirror` (read with stat() only) and `clock` must outlive the queue.
  SettleQueue(const MirrorRoot& mirror, synckit::Clock& clock, Options options);
  SettleQueue(const SettleQueue&) = delete;
  SettleQueue& operator=(const SettleQueue&) = delete;

  void setUnsupportedHandler(UnsupportedHandler handler) { onUnsupported_ = std::move(handler); }

  void add(const std::vector<MirrorWatcher::Event>& events);
  // What a rescan found (the disk against the index): settled like the
  // watcher's events, and merged with them, so that a change both report
  // comes out once.
  void add(const std::vector<LocalChange>& found);
  // Forgets everything waiting (before a rescan finds it again).
  void clear();

  bool empty() const noexcept { return items_.empty() && departures_.empty() && placed_.empty(); }
  // When takeSettled() may next have something (or a check to make).
  std::optional<synckit::Timestamp> nextDeadline() const;
  // The changes that have settled, in the order to apply them.
  std::vector<LocalChange> takeSettled();

 private:
  using Id = std::uint64_t;

  // One item of the mirror that something happened to since it was last
  // reported: where it was then and where it is now.
  struct Item {
    std::optional<std::string> initial;  // absent: new since
    std::optional<std::string> current;  // absent: gone (or halfway through a rename)
    bool isDirectory = false;
    bool dirty = false;     // new content since
    bool writing = false;   // written and not closed since
    bool inFlight = false;  // renamed away, second half not seen yet
    bool found = false;     // known only from a listing, no event of its own yet
    bool ready = false;
    std::optional<FileState> snapshot;
    synckit::Timestamp due;
    synckit::Timestamp readyAt;
    double order = 0;
  };

  // The first half of a rename.
  struct Departure {
    std::string from;
    std::optional<Id> item;
    bool fromProvider = false;
    bool stale = false;
    synckit::Timestamp at;
  };

  void apply(const MirrorWatcher::Event& event, std::vector<Id>& written);
  Id itemFor(const std::string& path, bool isDirectory);
  bool isStale(const std::string& path) const;
  bool isInNewFolder(const std::string& path) const;
  Id track(Item item);
  void erase(Id id);
  void place(Id id, std::optional<std::string> path);
  void setInitial(Id id, std::optional<std::string> path);
  void wait(Item& item, std::chrono::milliseconds delay);
  void arrive(Id id, const std::string& path, double orderOfArrival);
  void leave(Id id);
  void moveBelow(const std::string& from, const std::string& to, Item& folder);
  void dropBelow(const std::string& path);
  void goneBelow(const std::string& path);
  void expire(Departure departure);
  void describe(const Item& item, std::vector<LocalChange>& changes) const;
  std::optional<FileState> stat(const std::string& path) const;

  const MirrorRoot& mirror_;
  synckit::Clock& clock_;
  Options options_;
  UnsupportedHandler onUnsupported_;
  std::map<Id, Item> items_;
  std::map<std::string, Id> at_;                // by current path
  std::multimap<std::string, Id> initiallyAt_;  // by initial path
  std::unordered_map<std::uint32_t, Departure> departures_;
  // Files an update just put in place, whose staged copy may be closed
  // after the rename: that close is the provider's too.
  std::map<std::string, synckit::Timestamp> placed_;
  synckit::Timestamp now_;
  synckit::Timestamp lastEvent_;
  std::optional<synckit::Timestamp> waitingUntil_;
  Id nextId_ = 1;
  double nextOrder_ = 1;
};

}  // namespace halvark::provider
