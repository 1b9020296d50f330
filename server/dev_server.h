#pragma once
// halvark-devserver as an object: binds 127.0.0.1, serves on background
// threads, stops on request. Used by main() and, in-process, by the tests.
// start(), stop() and wait() may be called from any thread.

#include <memory>
#include <string>

#include "server/options.h"

namespace devserver {

class SharedState;

class DevServer {
 public:
  // Loads the state file and seeds when asked; throws std::runtime_error when
  // the state file cannot be used.
  explicit DevServer(Options options);
  ~DevServer();
  DevServer(const DevServer&) = delete;
  DevServer& operator=(const DevServer&) = delete;

  // Binds the port and starts serving; returns the base URL
  // (http://127.0.0.1:PORT plus the base path). Throws when the port is taken.
  std::string start();
  void stop();
  // Blocks until the server has stopped.
  void wait();

  const std::string& baseURL() const;
  int port() const;
  SharedState& state();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace devserver
