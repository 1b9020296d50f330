#pragma once

#include <cstdint>
#include <string>

#include "synckit/base/error.h"

namespace synckit {

// Why a local create, move or upload is refused. The description is the
// text shown to the user. The planner returns these inside its plans; the
// content uploader throws tooLarge. A plain value; safe to copy between
// threads.
class UploadPlanError : public Error {
 public:
  enum class Kind { invalidPath, junkDestination, tooLarge, noInboxBrain, moveIntoSelf };

  // `name` is the name or the whole path that was refused.
  static UploadPlanError invalidPath(std::string name);
  static UploadPlanError junkDestination(std::string name);
  static UploadPlanError tooLarge(std::int64_t size);
  static UploadPlanError noInboxBrain();
  static UploadPlanError moveIntoSelf();

  Kind kind() const noexcept { return kind_; }
  // The name of invalidPath and junkDestination; empty otherwise.
  const std::string& name() const noexcept { return name_; }
  // The byte count of tooLarge; 0 otherwise.
  std::int64_t size() const noexcept { return size_; }

  bool operator==(const UploadPlanError& other) const {
    return kind_ == other.kind_ && name_ == other.name_ && size_ == other.size_;
  }

 private:
  UploadPlanError(Kind kind, std::string name, std::int64_t size);

  Kind kind_;
  std::string name_;
  std::int64_t size_;
};

}  // namespace synckit
