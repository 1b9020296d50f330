#include "synckit/conflicts/conflict_event.h"

#include <array>
#include <cstddef>

namespace synckit {
namespace {

constexpr std::array<std::string_view, 4> kindTexts = {"conflictedCopy", "readOnlyBounce",
                                                       "noWriteAccess", "resetConflict"};

}  // namespace

std::string_view toString(ConflictEvent::Kind kind) {
  return kindTexts[static_cast<std::size_t>(kind)];
}

std::optional<ConflictEvent::Kind> parseConflictEventKind(std::string_view text) {
  for (std::size_t i = 0; i < kindTexts.size(); ++i) {
    if (kindTexts[i] == text) return static_cast<ConflictEvent::Kind>(i);
  }
  return std::nullopt;
}

}  // namespace synckit
