#pragma once

#include <string>

#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/conflicts/conflict_event.h"

namespace halvark {

// One notice shown to the user for a conflict event.
struct ConflictNotice {
  synckit::Uuid id;  // new for each notice
  std::string message;
  synckit::Timestamp at;
  synckit::ConflictEvent::Kind kind = synckit::ConflictEvent::Kind::conflictedCopy;

  bool operator==(const ConflictNotice&) const = default;
};

}  // namespace halvark
