#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "synckit/api/brain.h"
#include "synckit/api/curl_transport.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/oauth_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/testing/in_memory_token_store.h"
#include "tests/e2e/devserver_process.h"

namespace halvark::e2e {

// A devserver process (seeded with the demo brain) and the client library as
// it ships, ready to sign in as the member "demo". Test fixtures derive from
// it next to ::testing::Test; its helpers report through gtest assertions, so
// call signIn() under ASSERT_NO_FATAL_FAILURE. One test thread.
class DevServerSession {
 protected:
  DevServerSession();

  // Signs in with PKCE through the server's login form and registers this
  // machine as the device "e2e-machine" on "linux".
  void signIn();
  // What a person does in the browser: open the authorization URL, fill in
  // the form and follow the redirect back to the application. Returns the
  // redirect's Location.
  std::string signInInBrowser(const std::string& authorizationURL);
  // A request to the server's control interface below /_control; the answer
  // parsed (discarded JSON when it is not JSON).
  nlohmann::json control(const std::string& method, const std::string& path,
                         const nlohmann::json& body = nlohmann::json::object());
  // The seeded brain with the slug "demo".
  synckit::Brain demoBrain();

  DevServerProcess server_;
  synckit::CurlTransport transport_;
  synckit::testing::InMemoryTokenStore tokenStore_;
  synckit::OAuthClient oauth_;
  std::string clientId_;
  std::optional<synckit::AuthServerMetadata> metadata_;
  synckit::TokenManager tokens_;
  synckit::SyncAPIClient api_;
  std::string deviceId_;
};

}  // namespace halvark::e2e
