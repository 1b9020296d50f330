#pragma once

#include <optional>
#include <string>

namespace synckit {

// The answer to a delete. `deleted` is false when there was nothing to delete.
struct DeleteResult {
  bool deleted = false;
  std::optional<std::string> cursor;

  bool operator==(const DeleteResult&) const = default;
};

}  // namespace synckit
