#pragma once

#include <string>
#include <utility>
#include <variant>

#include "synckit/base/uuid.h"
#include "synckit/engine/upload_plan_error.h"

namespace synckit {

// What to do with an item the user created locally. A plain value; safe to
// copy between threads.
struct CreatePlan {
  // A new file to upload at `path`.
  struct Upload {
    Uuid brainId;
    std::string path;
    bool operator==(const Upload&) const = default;
  };
  // An item with an ignored name: kept locally, never uploaded.
  struct LocalOnly {
    Uuid brainId;
    std::string path;
    bool operator==(const LocalOnly&) const = default;
  };
  // A new folder: recorded locally, nothing is sent.
  struct LocalDirectoryOnly {
    Uuid brainId;
    std::string path;
    bool operator==(const LocalDirectoryOnly&) const = default;
  };
  struct Rejected {
    UploadPlanError error;
    bool operator==(const Rejected&) const = default;
  };

  enum class Kind { upload, localOnly, localDirectoryOnly, rejected };

  CreatePlan(Upload plan) : value(std::move(plan)) {}
  CreatePlan(LocalOnly plan) : value(std::move(plan)) {}
  CreatePlan(LocalDirectoryOnly plan) : value(std::move(plan)) {}
  CreatePlan(Rejected plan) : value(std::move(plan)) {}

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  // Alternatives in the order of Kind.
  std::variant<Upload, LocalOnly, LocalDirectoryOnly, Rejected> value;

  bool operator==(const CreatePlan&) const = default;
};

}  // namespace synckit
