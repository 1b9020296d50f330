#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "synckit/testing/fake_http_transport.h"

namespace halvark::testing {

// The service's side of a sign-in for unit tests, at any base URL: discovery,
// client registration ("client-1"), the token endpoint ("access-1",
// "refresh-1") and device registration ("device-1" named "Box-2"), each
// answering success unless a test gave the path another answer. Thread-safe.
class FakeSignInService {
 public:
  // Absent for a path that is not part of a sign-in.
  std::optional<synckit::HTTPResponse> answer(const synckit::HTTPRequest& request) {
    const std::string path = request.url.substr(request.url.find('/', request.url.find("//") + 2));
    std::lock_guard lock(mutex_);
    if (auto answer = answers_.find(path); answer != answers_.end()) return answer->second;
    return std::nullopt;
  }

  void answer(const std::string& path, synckit::HTTPResponse response) {
    std::lock_guard lock(mutex_);
    answers_[path] = std::move(response);
  }

 private:
  static synckit::HTTPResponse json(int status, const char* body) {
    return synckit::testing::FakeHTTPTransport::json(status, body);
  }

  std::mutex mutex_;
  std::map<std::string, synckit::HTTPResponse> answers_{
      {"/.well-known/oauth-authorization-server",
       json(200, R"({"issuer":"https://sync.example.test",
         "authorization_endpoint":"https://sync.example.test/authorize",
         "token_endpoint":"https://sync.example.test/token",
         "registration_endpoint":"https://sync.example.test/register"})")},
      {"/register", json(201, R"({"client_id":"client-1","client_name":"Halvark Desktop",
         "redirect_uris":["halvark://oauth/callback"],"token_endpoint_auth_method":"none",
         "grant_types":["authorization_code"],"response_types":["code"]})")},
      {"/token", json(200, R"({"access_token":"access-1","token_type":"Bearer",
         "expires_in":3600,"refresh_token":"refresh-1","scope":"readwrite"})")},
      {"/api/sync/devices", json(201, R"({"device":{"id":"device-1","name":"Box-2",
         "platform":"linux","createdAt":"2025-03-01T09:30:12.345Z"}})")},
  };
};

}  // namespace halvark::testing
