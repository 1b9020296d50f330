#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "app/core/web_authenticator.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/base/url.h"

namespace halvark::testing {

// A WebAuthenticator for unit tests: records every authorization URL and
// answers it through a responder, as the user and the service would; with no
// responder it waits like a browser the user has not finished with, until
// cancel() (the user's cancellation) or the caller's stop. Thread-safe; the
// responder runs on the caller's thread, outside the lock.
class FakeWebAuthenticator : public WebAuthenticator {
 public:
  // Returns the callback URL for an authorization URL, or throws.
  using Responder = std::function<std::string(const std::string& authorizationURL)>;

  // An empty responder makes later calls wait.
  void respondWith(Responder responder) {
    std::lock_guard lock(mutex_);
    responder_ = std::move(responder);
  }

  // The value of the query item `name` of `url`; empty when it has none.
  static std::string queryValue(const std::string& url, const std::string& name) {
    auto parts = synckit::URLComponents::parse(url);
    if (!parts) return {};
    for (const auto& [itemName, value] : parts->queryItems()) {
      if (itemName == name) return value.value_or("");
    }
    return {};
  }

  // The service approved: the callback has the code "code-1" and the
  // request's state, then `extra` ("&name=value...").
  static Responder approving(std::string extra = {}) {
    return [extra](const std::string& url) {
      return "halvark://oauth/callback?code=code-1&state=" + queryValue(url, "state") + extra;
    };
  }

  std::vector<std::string> urls() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  // Waits (in real time) until `count` authorization URLs were opened.
  bool waitForURLs(std::size_t count,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return urls_.size() >= count; });
  }

  std::string authenticate(const std::string& url, const std::string&) override {
    Responder responder;
    {
      std::unique_lock lock(mutex_);
      urls_.push_back(url);
      changed_.notify_all();
      if (!responder_) {
        const int cancellations = cancellations_;
        if (!changed_.wait(lock, synckit::currentStopToken(),
                           [&] { return cancellations_ != cancellations; })) {
          throw synckit::CancellationError();
        }
        throw WebAuthenticationCanceled();
      }
      responder = responder_;
    }
    return responder(url);
  }

  void cancel() override {
    std::lock_guard lock(mutex_);
    ++cancellations_;
    changed_.notify_all();
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable_any changed_;
  Responder responder_;
  std::vector<std::string> urls_;
  int cancellations_ = 0;
};

}  // namespace halvark::testing
