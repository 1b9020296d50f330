#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"

namespace synckit {

// One user-visible outcome of conflict handling, kept in the conflict event
// log until the application shows it as a notice. A plain value; safe to
// copy between threads.
struct ConflictEvent {
  // Raw values are the "kind" texts of the stored JSON.
  enum class Kind { conflictedCopy, readOnlyBounce, noWriteAccess, resetConflict };

  Kind kind = Kind::conflictedCopy;
  Uuid brainId;
  // The path the event is about: the original file.
  std::string path;
  // The conflicted copy, when one was made.
  std::optional<std::string> copyPath;
  // The text shown to the user.
  std::string message;
  Timestamp at;

  bool operator==(const ConflictEvent&) const = default;
};

// "conflictedCopy", "readOnlyBounce", "noWriteAccess", "resetConflict".
std::string_view toString(ConflictEvent::Kind kind);
// No value for any other text.
std::optional<ConflictEvent::Kind> parseConflictEventKind(std::string_view text);

}  // namespace synckit
