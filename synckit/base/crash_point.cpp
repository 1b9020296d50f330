#include "synckit/base/crash_point.h"

#include <utility>

namespace synckit {
namespace {

std::function<void()>& installedHook() {
  static std::function<void()> hook;
  return hook;
}

}  // namespace

void crashPoint() {
  if (const auto& hook = installedHook()) hook();
}

void setCrashPointHook(std::function<void()> hook) { installedHook() = std::move(hook); }

}  // namespace synckit
