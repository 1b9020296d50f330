#pragma once
// Test support: a devserver started in-process on a free loopback port, and a
// few helpers that talk to it over real HTTP the way a client would.

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "server/dev_server.h"

namespace devserver::testing {

// One HTTP answer, with the body parsed when it is JSON.
struct Reply {
  int status = 0;  // 0 when no answer arrived (connection failed or dropped)
  std::string body;
  nlohmann::json json;
  std::map<std::string, std::string> headers;

  std::string header(const std::string& name) const;
  // The "code" of a sync error envelope, or "" when there is none.
  std::string errorCode() const;
};

// The RFC 7636 example pair, so that the server's S256 check is tested against a
// value computed elsewhere.
inline constexpr const char* kVerifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
inline constexpr const char* kChallenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
inline constexpr const char* kRedirectUri = "halvark://oauth/callback";

struct Session {
  std::string clientId;
  std::string accessToken;
  std::string refreshToken;
  std::string deviceId;
};

Options quietOptions();

class TestServer {
 public:
  explicit TestServer(Options options = quietOptions());
  ~TestServer();

  const std::string& baseURL() const { return server_->baseURL(); }
  const std::string& basePath() const { return basePath_; }
  DevServer& server() { return *server_; }

  // `path` is below the base path and may carry a query.
  Reply get(const std::string& path, const std::string& token = "");
  Reply send(const std::string& method, const std::string& path, const std::string& body,
             const std::string& contentType, const std::string& token = "");
  Reply sendJson(const std::string& method, const std::string& path, const nlohmann::json& body,
                 const std::string& token = "");
  Reply postForm(const std::string& path, const std::map<std::string, std::string>& fields);

  // The control interface; fails the test when the answer is not 2xx.
  nlohmann::json control(const std::string& method, const std::string& path,
                         const nlohmann::json& body = nlohmann::json::object());

  std::string registerClient();
  // Signs in through the login form; returns the code from the redirect.
  std::string authorize(const std::string& clientId, const std::string& member = "demo",
                        const std::string& password = "demo");
  Reply exchange(const std::string& clientId, const std::string& code,
                 const std::string& verifier = kVerifier);
  // The whole round trip plus a device registration.
  Session signIn(const std::string& member = "demo", const std::string& password = "demo");
  std::string createBrain(const std::string& name, const std::string& slug,
                          const std::optional<std::vector<std::string>>& members = std::nullopt);

 private:
  std::unique_ptr<DevServer> server_;
  std::string basePath_;
};

// True for text of the form 2025-03-01T09:30:12.345Z.
bool isWireDate(const std::string& text);

// Form-encodes fields the way the client does (a space as %20).
std::string formBody(const std::map<std::string, std::string>& fields);
// The value of a query item in a URL, decoded.
std::optional<std::string> queryItem(const std::string& url, const std::string& name);

}  // namespace devserver::testing
