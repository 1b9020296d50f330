#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "synckit/api/http_transport.h"

namespace synckit::testing {

// An HTTPTransport for unit tests: records every request and answers from a
// handler, or from a queue of canned responses when no handler is set.
// Thread-safe.
class FakeHTTPTransport : public HTTPTransport {
 public:
  using Handler = std::function<HTTPResponse(const HTTPRequest&)>;

  void setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }

  void enqueue(HTTPResponse response) {
    std::lock_guard lock(mutex_);
    queued_.push_back(std::move(response));
  }

  // A JSON response with the given status.
  static HTTPResponse json(int status, const std::string& body) {
    return HTTPResponse{status, {{"Content-Type", "application/json"}}, toBytes(body)};
  }

  HTTPResponse send(const HTTPRequest& request) override {
    Handler handler;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      if (!handler_) {
        if (queued_.empty()) return HTTPResponse{599, {}, toBytes("no response queued")};
        HTTPResponse response = std::move(queued_.front());
        queued_.pop_front();
        return response;
      }
      handler = handler_;
    }
    return handler(request);
  }

  std::vector<HTTPRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  std::size_t requestCount() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
  }

 private:
  mutable std::mutex mutex_;
  Handler handler_;
  std::deque<HTTPResponse> queued_;
  std::vector<HTTPRequest> requests_;
};

}  // namespace synckit::testing
