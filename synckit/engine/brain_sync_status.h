#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/store/metadata_store.h"

namespace synckit {

// One brain's line in the status menu: its name, whether it is syncing,
// idle or in error, when it last synced and how many of its nodes failed to
// upload. A plain value, identified by brainId; safe to copy between threads.
struct BrainSyncStatus {
  struct State {
    struct Error {
      std::string text;  // as shown to the user
      bool operator==(const Error&) const = default;
    };
    struct Idle {
      bool operator==(const Idle&) const = default;
    };
    struct Syncing {
      bool operator==(const Syncing&) const = default;
    };
    // Cases in the order of the alternatives.
    enum class Kind { error, idle, syncing };

    static State error(std::string text) { return {Error{std::move(text)}}; }
    static State idle() { return {Idle{}}; }
    static State syncing() { return {Syncing{}}; }

    Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
    // The error's text; absent in the other cases.
    std::optional<std::string> errorText() const;

    std::variant<Error, Idle, Syncing> value{Idle{}};
    bool operator==(const State&) const = default;
  };

  Uuid brainId;
  std::string name;
  State state;
  std::optional<Timestamp> lastSyncAt;  // absent until the brain's feed was first applied
  std::int64_t pendingErrorCount = 0;   // nodes whose last upload failed

  bool operator==(const BrainSyncStatus&) const = default;
};

// The line of every stored brain, by slug then id, from the scheduler's own
// knowledge (brains syncing now, each brain's last error message and last
// sync) and the store. The first that applies sets a brain's state: syncing;
// its error message; "{n} upload error(s)" when n of its nodes failed to
// upload; idle. Read in one immediate transaction under the store's lock, so
// the lines agree with each other; a store error is thrown and no list is
// returned. Any thread may call it.
std::vector<BrainSyncStatus> statuses(MetadataStore& store, const std::set<Uuid>& syncing,
                                      const std::map<Uuid, std::string>& errors,
                                      const std::map<Uuid, Timestamp>& lastSyncAt);

}  // namespace synckit
