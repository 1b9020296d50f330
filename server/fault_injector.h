#pragma once
// Faults that the control interface arms for the next N requests whose path
// contains a given text: an error answer, a delay, or a dropped connection.
// Thread-safe: armed from control requests, consumed by every worker thread.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

struct Fault {
  std::string id;
  std::string pathContains;           // matched against the request path, query excluded
  std::optional<std::string> method;  // any method when absent
  int remaining = 1;
  std::optional<int> status;  // answer with this status and the error envelope
  std::string code = "INJECTED_FAULT";
  std::string message = "Injected fault";
  std::int64_t delayMillis = 0;  // applied before anything else
  bool drop = false;             // close the connection without an answer
  bool operator==(const Fault&) const = default;
};

class FaultInjector {
 public:
  // Returns the armed fault with its id filled in.
  Fault arm(Fault fault);
  void clear();
  std::vector<Fault> armed() const;

  // Uses up one application of the first armed fault that matches.
  std::optional<Fault> take(const std::string& method, const std::string& path);

 private:
  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  std::uint64_t nextId_ = 1;
};

}  // namespace devserver
