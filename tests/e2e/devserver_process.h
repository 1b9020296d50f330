#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace halvark::e2e {

// A halvark-devserver started as a real child process on a free loopback
// port. The constructor returns once the server has printed its base URL;
// the destructor stops it (SIGTERM, then SIGKILL) and reaps it.
class DevServerProcess {
 public:
  explicit DevServerProcess(std::vector<std::string> arguments);
  ~DevServerProcess();
  DevServerProcess(const DevServerProcess&) = delete;
  DevServerProcess& operator=(const DevServerProcess&) = delete;

  const std::string& baseURL() const noexcept { return baseURL_; }

 private:
  pid_t pid_ = -1;
  std::string baseURL_;
};

}  // namespace halvark::e2e
