#pragma once

#include <optional>
#include <string_view>

namespace synckit {

// What a queued local change asks the server to do. `delete_` is stored as
// "delete" (the trailing underscore only dodges the C++ keyword).
enum class PendingChangeKind { create, update, move, delete_, mkdir };

constexpr std::string_view toString(PendingChangeKind kind) {
  switch (kind) {
    case PendingChangeKind::create:
      return "create";
    case PendingChangeKind::update:
      return "update";
    case PendingChangeKind::move:
      return "move";
    case PendingChangeKind::delete_:
      return "delete";
    case PendingChangeKind::mkdir:
      return "mkdir";
  }
  return "create";
}

constexpr std::optional<PendingChangeKind> parsePendingChangeKind(std::string_view text) {
  if (text == "create") return PendingChangeKind::create;
  if (text == "update") return PendingChangeKind::update;
  if (text == "move") return PendingChangeKind::move;
  if (text == "delete") return PendingChangeKind::delete_;
  if (text == "mkdir") return PendingChangeKind::mkdir;
  return std::nullopt;
}

}  // namespace synckit
