#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <httplib.h>

namespace synckit::testing {

// A real HTTP server on 127.0.0.1 and a free port, for tests of code that
// speaks HTTP. Register handlers on server() before start(); the server
// stops and joins its threads on destruction, waking handlers that hold their
// answer back with holdFor() so that shutdown is quick.
//
// server() and start() from the test's thread; holdFor() from handlers.
class LoopbackHTTPServer {
 public:
  explicit LoopbackHTTPServer(std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>(),
                              std::string scheme = "http")
      : server_(std::move(server)), scheme_(std::move(scheme)) {}

  ~LoopbackHTTPServer() { stop(); }
  LoopbackHTTPServer(const LoopbackHTTPServer&) = delete;
  LoopbackHTTPServer& operator=(const LoopbackHTTPServer&) = delete;

  httplib::Server& server() { return *server_; }

  void start() {
    port_ = server_->bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("could not bind a loopback port");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() only works once the accept loop runs.
    while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  int port() const { return port_; }
  std::string baseURL() const { return scheme_ + "://127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path) const { return baseURL() + path; }

  // Waits up to `duration`; returns false early when the server is stopping.
  bool holdFor(std::chrono::milliseconds duration) {
    std::unique_lock lock(mutex_);
    return !heldWake_.wait_for(lock, duration, [this] { return stopRequested_; });
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      if (stopRequested_) return;
      stopRequested_ = true;
    }
    heldWake_.notify_all();
    if (thread_.joinable()) {
      server_->stop();
      thread_.join();
    }
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::string scheme_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable heldWake_;
  bool stopRequested_ = false;
};

}  // namespace synckit::testing
