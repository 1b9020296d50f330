#pragma once

#include <optional>
#include <string>

namespace synckit {

// A server workspace as the brain list reports it. `id` is the brain's UUID
// in the server's spelling.
struct Brain {
  std::string id;
  std::string teamId;
  std::string name;
  std::string slug;
  std::optional<std::string> headCursor;

  bool operator==(const Brain&) const = default;
};

}  // namespace synckit
