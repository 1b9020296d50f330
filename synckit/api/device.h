#pragma once

#include <optional>
#include <string>

#include "synckit/base/timestamp.h"

namespace synckit {

// A client machine registered with the sync service.
struct Device {
  std::string id;
  std::string name;
  std::string platform;
  Timestamp createdAt;
  std::optional<Timestamp> lastSeenAt;

  bool operator==(const Device&) const = default;
};

}  // namespace synckit
