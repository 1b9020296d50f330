#include "server/fault_injector.h"

namespace devserver {

Fault FaultInjector::arm(Fault fault) {
  std::lock_guard lock(mutex_);
  fault.id = "fault-" + std::to_string(nextId_++);
  faults_.push_back(fault);
  return fault;
}

void FaultInjector::clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
}

std::vector<Fault> FaultInjector::armed() const {
  std::lock_guard lock(mutex_);
  return faults_;
}

std::optional<Fault> FaultInjector::take(const std::string& method, const std::string& path) {
  std::lock_guard lock(mutex_);
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->method && *it->method != method) continue;
    if (path.find(it->pathContains) == std::string::npos) continue;
    Fault fault = *it;
    if (--it->remaining <= 0) faults_.erase(it);
    return fault;
  }
  return std::nullopt;
}

}  // namespace devserver
