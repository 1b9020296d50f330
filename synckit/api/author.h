#pragma once

#include <optional>
#include <string>

#include "synckit/api/author_kind.h"

namespace synckit {

// Who made a change-feed entry. `harness` names the agent's tooling when an
// agent wrote it.
struct Author {
  AuthorKind kind = AuthorKind::member;
  std::string memberId;
  std::optional<std::string> harness;

  bool operator==(const Author&) const = default;
};

}  // namespace synckit
