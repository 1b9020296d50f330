#include "synckit/engine/upload_plan_error.h"

#include "synckit/engine/upload_planner.h"

namespace synckit {
namespace {

std::string describe(UploadPlanError::Kind kind, const std::string& name, std::int64_t size) {
  switch (kind) {
    case UploadPlanError::Kind::invalidPath:
      return "\"" + name + "\" is not a valid name or path for Halvark.";
    case UploadPlanError::Kind::junkDestination:
      return "\"" + name + "\" is a name Halvark does not sync.";
    case UploadPlanError::Kind::tooLarge:
      return "This file is too large to upload (" + std::to_string(size) +
             " bytes). The limit is " + std::to_string(UploadPlanner::maxUploadBytes) + " bytes.";
    case UploadPlanError::Kind::noInboxBrain:
      return "There is no brain to put this item in. Choose an inbox brain or create the item "
             "inside a brain.";
    case UploadPlanError::Kind::moveIntoSelf:
      return "A folder can't be moved into itself.";
  }
  return "";
}

}  // namespace

UploadPlanError::UploadPlanError(Kind kind, std::string name, std::int64_t size)
    : Error(describe(kind, name, size)), kind_(kind), name_(std::move(name)), size_(size) {}

UploadPlanError UploadPlanError::invalidPath(std::string name) {
  return UploadPlanError(Kind::invalidPath, std::move(name), 0);
}

UploadPlanError UploadPlanError::junkDestination(std::string name) {
  return UploadPlanError(Kind::junkDestination, std::move(name), 0);
}

UploadPlanError UploadPlanError::tooLarge(std::int64_t size) {
  return UploadPlanError(Kind::tooLarge, {}, size);
}

UploadPlanError UploadPlanError::noInboxBrain() {
  return UploadPlanError(Kind::noInboxBrain, {}, 0);
}

UploadPlanError UploadPlanError::moveIntoSelf() {
  return UploadPlanError(Kind::moveIntoSelf, {}, 0);
}

}  // namespace synckit
