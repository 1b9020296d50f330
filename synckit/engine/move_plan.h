#pragma once

#include <string>
#include <utility>
#include <variant>

#include "synckit/base/uuid.h"
#include "synckit/engine/upload_plan_error.h"

namespace synckit {

// What to do with an item the user renamed or moved locally. A plain value;
// safe to copy between threads.
struct MovePlan {
  // Send a move to the server.
  struct Move {
    Uuid brainId;
    std::string fromPath;
    std::string toPath;
    bool operator==(const Move&) const = default;
  };
  // The item is local-only: move it in the store only.
  struct LocalOnly {
    Uuid brainId;
    std::string fromPath;
    std::string toPath;
    bool operator==(const LocalOnly&) const = default;
  };
  struct Rejected {
    UploadPlanError error;
    bool operator==(const Rejected&) const = default;
  };
  // The item would end where it is.
  struct NoChange {
    bool operator==(const NoChange&) const = default;
  };
  // The destination lies in another brain; the caller shows
  // UploadPlanner::crossBrainMessage.
  struct CrossBrainUnsupported {
    bool operator==(const CrossBrainUnsupported&) const = default;
  };

  enum class Kind { move, localOnly, rejected, noChange, crossBrainUnsupported };

  MovePlan(Move plan) : value(std::move(plan)) {}
  MovePlan(LocalOnly plan) : value(std::move(plan)) {}
  MovePlan(Rejected plan) : value(std::move(plan)) {}
  MovePlan(NoChange plan) : value(plan) {}
  MovePlan(CrossBrainUnsupported plan) : value(plan) {}

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  // Alternatives in the order of Kind.
  std::variant<Move, LocalOnly, Rejected, NoChange, CrossBrainUnsupported> value;

  bool operator==(const MovePlan&) const = default;
};

}  // namespace synckit
