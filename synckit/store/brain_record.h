#pragma once

#include <optional>
#include <string>

#include "synckit/base/uuid.h"

namespace synckit {

// A brain as the store keeps it: who it is and how far its feed was applied.
struct BrainRecord {
  Uuid brainId;
  std::string slug;
  std::string name;
  // The last applied change-feed cursor; absent until the first sync.
  std::optional<std::string> cursor;

  bool operator==(const BrainRecord&) const = default;
};

}  // namespace synckit
