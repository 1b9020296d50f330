#pragma once

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>

#include "app/platform/control_protocol.h"
#include "synckit/base/error.h"

namespace halvark {

// No instance serves the control socket: "Halvark is not running."
class NotRunningError : public synckit::Error {
 public:
  NotRunningError() : synckit::Error("Halvark is not running.") {}
};

// One connection of a command-line verb to the running instance's control
// socket. One thread uses it.
class ControlClient {
 public:
  // Connects. Throws NotRunningError when nobody serves `socket` (no file,
  // or one left by an instance that was killed), PosixError otherwise.
  explicit ControlClient(const std::filesystem::path& socket = ControlProtocol::socketPath());
  ~ControlClient();
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;

  // Sends one request. Throws the errors of receive() when the instance has
  // gone.
  void send(const nlohmann::json& request);

  // The next line of the instance; absent as soon as one of `interrupts`
  // (descriptors of the caller) is readable and no line is waiting.
  // Throws synckit::Error "Halvark stopped before answering." when the
  // instance closed the connection, and the same kind of error for a line
  // that is not a JSON object.
  std::optional<nlohmann::json> receive(std::span<const int> interrupts = {});

  // Sends `request` and returns the final answer (the line with "ok");
  // `onEvent` sees the lines before it.
  nlohmann::json request(const nlohmann::json& request,
                         const std::function<void(const nlohmann::json&)>& onEvent = {});

 private:
  int fd_ = -1;
  ControlProtocol::LineBuffer buffer_;
};

}  // namespace halvark
