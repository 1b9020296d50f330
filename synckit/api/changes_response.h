#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "synckit/api/feed_entry.h"
#include "synckit/api/snapshot_node.h"

namespace synckit {

// The change feed's answer: either the entries after the requested cursor, or
// a full snapshot when the server could not continue from it. Decode only.
struct ChangesResponse {
  struct Incremental {
    std::vector<FeedEntry> entries;
    std::optional<std::string> cursor;
    bool operator==(const Incremental&) const = default;
  };
  struct Reset {
    std::vector<SnapshotNode> snapshot;
    std::optional<std::string> cursor;
    bool operator==(const Reset&) const = default;
  };

  enum class Kind { incremental, reset };

  ChangesResponse(Incremental page) : value(std::move(page)) {}
  ChangesResponse(Reset page) : value(std::move(page)) {}

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  // The cursor of whichever case this holds.
  const std::optional<std::string>& cursor() const noexcept {
    return std::visit([](const auto& page) -> const std::optional<std::string>& { return page.cursor; }, value);
  }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  std::variant<Incremental, Reset> value;

  bool operator==(const ChangesResponse&) const = default;
};

}  // namespace synckit
