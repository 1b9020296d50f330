#include "provider/settle_queue.h"

#include <algorithm>
#include <set>

#include "provider/mirror_names.h"
#include "provider/mirror_path_error.h"

namespace halvark::provider {
namespace {

using Kind = MirrorWatcher::Event::Kind;

synckit::Timestamp after(synckit::Timestamp time, std::chrono::milliseconds delay) {
  return synckit::Timestamp::fromMilliseconds(time.millisecondsSinceEpoch() + delay.count());
}

bool isBelow(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' && path.starts_with(folder);
}

// Whether `path` is, holds or lies in one of `paths`.
bool touches(const std::string& path, const std::set<std::string>& paths) {
  if (paths.empty()) return false;
  for (std::size_t slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (paths.contains(path.substr(0, slash))) return true;
  }
  if (paths.contains(path)) return true;
  const std::string below = path + "/";
  const auto it = paths.lower_bound(below);
  return it != paths.end() && it->starts_with(below);
}

// The keys of `map` strictly below the folder `path`, which a sorted map
// keeps together.
template <class Map>
std::vector<typename Map::mapped_type> valuesBelow(const Map& map, const std::string& path) {
  std::vector<typename Map::mapped_type> values;
  const std::string below = path + "/";
  for (auto it = map.lower_bound(below); it != map.end() && it->first.starts_with(below); ++it) {
    values.push_back(it->second);
  }
  return values;
}

}  // namespace

SettleQueue::SettleQueue(const MirrorRoot& mirror, synckit::Clock& clock, Options options)
    : mirror_(mirror), clock_(clock), options_(options) {}

void SettleQueue::clear() {
  placed_.clear();
  items_.clear();
  at_.clear();
  initiallyAt_.clear();
  departures_.clear();
  waitingUntil_.reset();
}

std::optional<FileState> SettleQueue::stat(const std::string& path) const {
  try {
    return mirror_.stat(path);
  } catch (const MirrorPathError&) {
    // A link or a file on the way: nothing reachable is there.
    return std::nullopt;
  }
}

SettleQueue::Id SettleQueue::track(Item item) {
  const Id id = nextId_++;
  if (item.order == 0) item.order = nextOrder_++;
  if (item.current) at_[*item.current] = id;
  if (item.initial) initiallyAt_.emplace(*item.initial, id);
  items_.emplace(id, std::move(item));
  return id;
}

void SettleQueue::place(Id id, std::optional<std::string> path) {
  Item& item = items_.at(id);
  if (item.current) {
    if (const auto at = at_.find(*item.current); at != at_.end() && at->second == id) at_.erase(at);
  }
  item.current = std::move(path);
  if (item.current) at_[*item.current] = id;
}

void SettleQueue::setInitial(Id id, std::optional<std::string> path) {
  Item& item = items_.at(id);
  if (item.initial) {
    auto [first, last] = initiallyAt_.equal_range(*item.initial);
    for (auto it = first; it != last; ++it) {
      if (it->second == id) {
        initiallyAt_.erase(it);
        break;
      }
    }
  }
  item.initial = std::move(path);
  if (item.initial) initiallyAt_.emplace(*item.initial, id);
}

void SettleQueue::erase(Id id) {
  place(id, std::nullopt);
  setInitial(id, std::nullopt);
  items_.erase(id);
}

void SettleQueue::wait(Item& item, std::chrono::milliseconds delay) {
  item.due = after(now_, delay);
  item.ready = false;
}

// An event about an item at `path` that nothing tracked stands at, while a
// tracked item started out there: news of what that item did already,
// from a rescan or the watcher, whichever came second.
bool SettleQueue::isStale(const std::string& path) const {
  return !at_.contains(path) && initiallyAt_.contains(path);
}

// Whether a folder above `path` is new since: then whatever is in it is too.
bool SettleQueue::isInNewFolder(const std::string& path) const {
  for (std::size_t slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const auto at = at_.find(path.substr(0, slash));
    if (at == at_.end()) continue;
    const Item& folder = items_.at(at->second);
    if (folder.isDirectory && !folder.initial) return true;
  }
  return false;
}

SettleQueue::Id SettleQueue::itemFor(const std::string& path, bool isDirectory) {
  if (const auto at = at_.find(path); at != at_.end()) return at->second;
  Item item;
  item.initial = path;
  item.current = path;
  item.isDirectory = isDirectory;
  return track(std::move(item));
}

// The item is at `path` now. Whatever stood there was replaced; and a new
// item taking the place of one that went away (a temporary renamed over a
// document, a new file written after the original was renamed to a
// backup) is that item rewritten.
void SettleQueue::arrive(Id id, const std::string& path, double orderOfArrival) {
  if (const auto at = at_.find(path); at != at_.end() && at->second != id) {
    const Id replaced = at->second;
    Item& occupant = items_.at(replaced);
    if (occupant.found && occupant.initial == path) {
      // Seen only by a listing that came before news of this move: the
      // same item.
      erase(replaced);
      place(id, path);
      return;
    }
    occupant.order = std::min(occupant.order, orderOfArrival - 0.5);
    wait(occupant, options_.quiet);
    place(replaced, std::nullopt);
    leave(replaced);
  }
  place(id, path);
  Item& item = items_.at(id);
  if (item.initial || !MirrorNames::isSynced(path, item.isDirectory)) return;
  auto [first, last] = initiallyAt_.equal_range(path);
  for (auto it = first; it != last; ++it) {
    const Item& former = items_.at(it->second);
    if (it->second == id || former.inFlight || former.isDirectory != item.isDirectory) continue;
    if (former.current && MirrorNames::isSynced(*former.current, former.isDirectory)) continue;
    const Id formerId = it->second;
    item.order = std::min(item.order, former.order);
    item.dirty = item.dirty || !item.isDirectory;
    erase(formerId);
    setInitial(id, path);
    return;
  }
}

// The item went away from the synced part of the mirror (deleted, moved
// out, renamed to a temporary's name). A new item already in its old
// place takes it over; a new item that goes is forgotten.
void SettleQueue::leave(Id id) {
  Item& item = items_.at(id);
  if (!item.initial) {
    erase(id);
    return;
  }
  const auto at = at_.find(*item.initial);
  if (at == at_.end() || at->second == id) return;
  Item& successor = items_.at(at->second);
  if (successor.initial || successor.isDirectory != item.isDirectory) return;
  successor.order = std::min(successor.order, item.order);
  successor.dirty = successor.dirty || !successor.isDirectory;
  const Id successorId = at->second;
  const std::optional<std::string> place = item.initial;
  erase(id);
  setInitial(successorId, place);
}

// A folder moved from `from` to `to`: what waits below it moves along, and
// everything below its new place is told after it, in its new terms. An
// item already there as new is the same file, found by listing the folder
// before its move was known.
void SettleQueue::moveBelow(const std::string& from, const std::string& to, Item& folder) {
  auto below = [&](const std::string& path) {
    std::vector<Id> ids = valuesBelow(at_, path);
    for (const Id id : valuesBelow(initiallyAt_, path)) ids.push_back(id);
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
  };
  for (const Id id : below(from)) {
    Item& item = items_.at(id);
    if (item.current && isBelow(*item.current, from)) {
      const std::string path = to + item.current->substr(from.size());
      if (const auto at = at_.find(path);
          at != at_.end() && (!items_.at(at->second).initial || items_.at(at->second).found)) {
        erase(at->second);
      }
      place(id, path);
    }
    if (item.initial && isBelow(*item.initial, from)) {
      setInitial(id, to + item.initial->substr(from.size()));
    }
  }
  std::vector<Id> after = below(to);
  std::sort(after.begin(), after.end(),
            [&](Id a, Id b) { return items_.at(a).order < items_.at(b).order; });
  const double step = 1.0 / (4.0 * static_cast<double>(after.size() + 1));
  double order = folder.order;
  for (const Id id : after) {
    order += step;
    items_.at(id).order = std::max(items_.at(id).order, order);
  }
}

// Forgets what waits below `path`: the provider's own doing.
void SettleQueue::dropBelow(const std::string& path) {
  for (const Id id : valuesBelow(at_, path)) erase(id);
}

// What waits below the folder `path` went with it.
void SettleQueue::goneBelow(const std::string& path) {
  for (const Id id : valuesBelow(at_, path)) {
    place(id, std::nullopt);
    leave(id);
  }
}

// The first half of a rename that never got its second: the item left
// the mirror.
void SettleQueue::expire(Departure departure) {
  if (!departure.item || !items_.contains(*departure.item)) return;
  const Id id = *departure.item;
  Item& item = items_.at(id);
  item.inFlight = false;
  wait(item, options_.quiet);
  if (item.isDirectory) goneBelow(departure.from);
  leave(id);
}

void SettleQueue::apply(const MirrorWatcher::Event& event, std::vector<Id>& written) {
  const std::string& path = event.path;
  const bool providers = MirrorNames::isProviderOwned(path);
  const bool synced = !providers && MirrorNames::isSynced(path, event.isDirectory);
  const auto found = at_.find(path);
  // Ids start at 1: 0 is no item.
  const Id existing = found == at_.end() ? 0 : found->second;
  if (event.kind == Kind::closed || event.kind == Kind::attributes) {
    if (!existing && placed_.contains(path)) return;
  } else {
    placed_.erase(path);
  }

  switch (event.kind) {
    case Kind::created: {
      if (!synced) return;
      if (existing) {
        // Seen twice (its event, and the listing of its new folder), or
        // made again where an unseen removal left room.
        Item& item = items_.at(existing);
        item.found = false;
        if (!item.isDirectory) {
          item.dirty = item.writing = true;
          written.push_back(existing);
        }
        wait(item, item.isDirectory ? options_.quiet : options_.settle);
        return;
      }
      Item item;
      item.isDirectory = event.isDirectory;
      item.dirty = item.writing = !event.isDirectory;
      const Id id = track(std::move(item));
      wait(items_.at(id), event.isDirectory ? options_.quiet : options_.settle);
      if (!event.isDirectory) written.push_back(id);
      arrive(id, path, items_.at(id).order);
      return;
    }
    case Kind::found: {
      // In a folder first watched just now. Its content may be new, or
      // items the index knows whose place the listing confirms; the
      // journal tells which. In a folder new since, or where a tracked
      // item left, it is new.
      if (!synced || existing) return;
      Item item;
      if (!isInNewFolder(path) && !initiallyAt_.contains(path)) item.initial = path;
      item.isDirectory = event.isDirectory;
      item.dirty = true;
      item.writing = !event.isDirectory;
      item.found = true;
      const Id id = track(std::move(item));
      wait(items_.at(id), event.isDirectory ? options_.quiet : options_.settle);
      if (!event.isDirectory) written.push_back(id);
      arrive(id, path, items_.at(id).order);
      return;
    }
    case Kind::modified:
    case Kind::closed: {
      if (!existing && (!synced || isStale(path))) return;
      const Id id = existing ? existing : itemFor(path, false);
      Item& item = items_.at(id);
      item.dirty = true;
      item.found = false;
      if (!synced) return;
      item.writing = event.kind == Kind::modified;
      wait(item, item.writing ? options_.settle : options_.quiet);
      if (item.writing) written.push_back(id);
      return;
    }
    case Kind::attributes: {
      if (!existing || !synced) return;
      Item& item = items_.at(existing);
      wait(item, item.writing ? options_.settle : options_.quiet);
      if (item.writing) written.push_back(existing);
      return;
    }
    case Kind::removed: {
      // A folder's content is normally removed before it, each with its
      // own event.
      if (event.isDirectory) goneBelow(path);
      if (existing) {
        wait(items_.at(existing), options_.quiet);
        place(existing, std::nullopt);
        leave(existing);
      } else if (synced && !isStale(path)) {
        Item item;
        item.initial = path;
        item.isDirectory = event.isDirectory;
        wait(items_.at(track(std::move(item))), options_.quiet);
      }
      return;
    }
    case Kind::movedFrom: {
      Departure departure;
      departure.from = path;
      departure.at = now_;
      departure.fromProvider = providers;
      departure.stale = !existing && synced && isStale(path);
      if (existing || (synced && !departure.stale)) {
        const Id id = existing ? existing : itemFor(path, event.isDirectory);
        items_.at(id).inFlight = true;
        place(id, std::nullopt);
        departure.item = id;
      }
      departures_[event.cookie] = std::move(departure);
      return;
    }
    case Kind::movedTo: {
      std::optional<Departure> departure;
      if (const auto it = departures_.find(event.cookie); it != departures_.end()) {
        departure = std::move(it->second);
        departures_.erase(it);
      }
      const Id mover =
          departure && departure->item && items_.contains(*departure->item) ? *departure->item : 0;
      if (departure && departure->stale) return;
      if (providers) {
        // Parked by an update: the provider has it in hand, and the index
        // says where it ends up.
        if (mover) {
          if (event.isDirectory) dropBelow(departure->from);
          erase(mover);
        }
        return;
      }
      if (departure && departure->fromProvider) {
        // Put in place by an update, over whatever was there.
        if (event.isDirectory) dropBelow(path);
        if (existing) erase(existing);
        if (!event.isDirectory) placed_[path] = now_;
        return;
      }
      Id id;
      if (mover) {
        id = mover;
        Item& item = items_.at(id);
        item.inFlight = false;
        if (item.isDirectory) moveBelow(departure->from, path, item);
      } else if (synced) {
        // From outside the mirror, or a temporary renamed into place: new,
        // and whole (its writer is done with it). A folder's content
        // follows as created.
        Item item;
        item.isDirectory = event.isDirectory;
        item.dirty = !event.isDirectory;
        id = track(std::move(item));
      } else {
        return;
      }
      wait(items_.at(id), options_.quiet);
      arrive(id, path, items_.at(id).order);
      if (!synced) leave(id);
      return;
    }
  }
}

void SettleQueue::add(const std::vector<MirrorWatcher::Event>& events) {
  if (events.empty()) return;
  now_ = clock_.now();
  lastEvent_ = now_;
  std::vector<Id> written;
  for (const MirrorWatcher::Event& event : events) apply(event, written);
  // A file still being written settles once it stops changing: note how
  // it looks after this batch.
  std::sort(written.begin(), written.end());
  written.erase(std::unique(written.begin(), written.end()), written.end());
  for (const Id id : written) {
    const auto it = items_.find(id);
    if (it == items_.end() || !it->second.writing || !it->second.current) continue;
    it->second.snapshot = stat(*it->second.current);
  }
}

void SettleQueue::add(const std::vector<LocalChange>& found) {
  std::vector<MirrorWatcher::Event> events;
  std::uint32_t cookie = 0;
  for (const LocalChange& change : found) {
    switch (change.kind) {
      case LocalChange::Kind::written:
        events.push_back({Kind::modified, change.path, false, 0});
        break;
      case LocalChange::Kind::madeFolder:
        events.push_back({Kind::created, change.path, true, 0});
        break;
      case LocalChange::Kind::removed:
        events.push_back({Kind::removed, change.path, change.isDirectory, 0});
        break;
      case LocalChange::Kind::moved:
        if (!change.fromPath) break;
        // A cookie that no rename waiting for its second half uses.
        do {
          --cookie;
        } while (departures_.contains(cookie));
        events.push_back({Kind::movedFrom, *change.fromPath, change.isDirectory, cookie});
        events.push_back({Kind::movedTo, change.path, change.isDirectory, cookie});
        break;
    }
  }
  add(events);
}

std::optional<synckit::Timestamp> SettleQueue::nextDeadline() const {
  std::optional<synckit::Timestamp> next = waitingUntil_;
  auto consider = [&](synckit::Timestamp time) {
    if (!next || time < *next) next = time;
  };
  for (const auto& [cookie, departure] : departures_) consider(after(departure.at, options_.quiet));
  for (const auto& [id, item] : items_) {
    if (!item.inFlight && !item.ready) consider(item.due);
  }
  return next;
}

// What became of one settled item, checked against the disk: an item
// gone without an event is gone, one of another kind than it was is a
// removal and a new item, and links and special files are not reported.
void SettleQueue::describe(const Item& item, std::vector<LocalChange>& changes) const {
  std::optional<std::string> from = item.initial;
  std::optional<std::string> to = item.current;
  bool isDirectory = item.isDirectory;
  if (to && !MirrorNames::isSynced(*to, isDirectory)) to.reset();
  if (to) {
    const std::optional<FileState> state = stat(*to);
    if (!state || !state->exists) {
      to.reset();
    } else if (state->isSymlink || (!state->isRegular && !state->isDirectory)) {
      if (onUnsupported_) {
        onUnsupported_(*to, state->isSymlink ? MirrorPathError::symbolicLink(*to, *to).description()
                                             : MirrorPathError::notRegularFile(*to).description());
      }
      return;
    } else if (state->isDirectory != isDirectory) {
      if (from) changes.push_back({LocalChange::Kind::removed, *from, std::nullopt, isDirectory});
      from.reset();
      isDirectory = state->isDirectory;
    }
  }
  if (!to) {
    if (!from) return;
    // Something stands there that no event told of: report that rather
    // than remove it.
    const std::optional<FileState> there = stat(*from);
    if (there && (there->isRegular || there->isDirectory) && !at_.contains(*from)) {
      changes.push_back(
          {there->isDirectory ? LocalChange::Kind::madeFolder : LocalChange::Kind::written, *from,
           std::nullopt, there->isDirectory});
    } else {
      changes.push_back({LocalChange::Kind::removed, *from, std::nullopt, isDirectory});
    }
    return;
  }
  if (!from) {
    changes.push_back({isDirectory ? LocalChange::Kind::madeFolder : LocalChange::Kind::written,
                       *to, std::nullopt, isDirectory});
    return;
  }
  if (*from != *to) changes.push_back({LocalChange::Kind::moved, *to, from, isDirectory});
  // (A folder is dirty only when a listing found it: there, at least.)
  if (item.dirty) {
    changes.push_back({isDirectory ? LocalChange::Kind::madeFolder : LocalChange::Kind::written,
                       *to, std::nullopt, isDirectory});
  }
}

std::vector<LocalChange> SettleQueue::takeSettled() {
  now_ = clock_.now();
  std::erase_if(placed_,
                [&](const auto& placed) { return after(placed.second, options_.quiet) <= now_; });
  for (auto it = departures_.begin(); it != departures_.end();) {
    if (after(it->second.at, options_.quiet) > now_) {
      ++it;
      continue;
    }
    Departure departure = std::move(it->second);
    it = departures_.erase(it);
    expire(std::move(departure));
  }

  for (auto& [id, item] : items_) {
    if (item.inFlight || item.ready || item.due > now_) continue;
    if (item.writing && item.current && MirrorNames::isSynced(*item.current, item.isDirectory)) {
      const std::optional<FileState> state = stat(*item.current);
      if (state && state->exists && state != item.snapshot) {
        item.snapshot = state;
        item.due = after(now_, options_.settle);
        continue;
      }
    }
    item.ready = true;
    item.readyAt = now_;
  }

  // Earliest first; whatever touches a path that an earlier item still
  // waiting touches waits too, so that changes never overtake each other.
  std::vector<std::pair<double, Id>> order;
  order.reserve(items_.size());
  for (const auto& [id, item] : items_) order.emplace_back(item.order, id);
  std::sort(order.begin(), order.end());
  std::set<std::string> waiting;
  for (const auto& [cookie, departure] : departures_) waiting.insert(departure.from);
  const bool quiet = now_ >= after(lastEvent_, options_.quiet);
  waitingUntil_.reset();
  std::vector<Id> chosen;
  for (const auto& [itemOrder, id] : order) {
    const Item& item = items_.at(id);
    const bool blocked = (item.initial && touches(*item.initial, waiting)) ||
                         (item.current && touches(*item.current, waiting));
    const bool held = now_ >= after(item.readyAt, options_.longestHold);
    if (item.ready && !blocked && (quiet || held)) {
      chosen.push_back(id);
      continue;
    }
    if (item.ready && !blocked) {
      const auto until =
          std::min(after(lastEvent_, options_.quiet), after(item.readyAt, options_.longestHold));
      if (!waitingUntil_ || until < *waitingUntil_) waitingUntil_ = until;
    }
    if (item.initial) waiting.insert(*item.initial);
    if (item.current) waiting.insert(*item.current);
  }

  std::vector<LocalChange> changes;
  for (const Id id : chosen) describe(items_.at(id), changes);
  for (const Id id : chosen) erase(id);

  // A removed folder takes what was in it along: one removal says it all.
  std::set<std::string> removedFolders;
  for (const LocalChange& change : changes) {
    if (change.kind == LocalChange::Kind::removed && change.isDirectory) {
      removedFolders.insert(change.path);
    }
  }
  std::erase_if(changes, [&](const LocalChange& change) {
    if (change.kind != LocalChange::Kind::removed) return false;
    for (std::size_t slash = change.path.rfind('/'); slash != std::string::npos && slash > 0;
         slash = change.path.rfind('/', slash - 1)) {
      if (removedFolders.contains(change.path.substr(0, slash))) return true;
    }
    return false;
  });
  return changes;
}

}  // namespace halvark::provider
