#include <gtest/gtest.h>
#include <httplib.h>

#include "server/test_server.h"

namespace devserver::testing {
namespace {

using nlohmann::json;

std::map<std::string, std::string> authorizeQuery(const std::string& clientId) {
  return {{"response_type", "code"},      {"client_id", clientId},
          {"redirect_uri", kRedirectUri}, {"state", "s 1"},
          {"code_challenge", kChallenge}, {"code_challenge_method", "S256"},
          {"scope", "readwrite"}};
}

TEST(OAuthRoutes, MetadataAndRegistrationLiveBelowTheBasePath) {
  Options options = quietOptions();
  options.basePath = "/svc/v1";
  TestServer server(options);
  ASSERT_EQ(server.baseURL().substr(server.baseURL().size() - 7), "/svc/v1");

  Reply metadata = server.get("/.well-known/oauth-authorization-server");
  ASSERT_EQ(metadata.status, 200);
  EXPECT_EQ(metadata.json["issuer"], server.baseURL());
  EXPECT_EQ(metadata.json["authorization_endpoint"], server.baseURL() + "/oauth/authorize");
  EXPECT_EQ(metadata.json["token_endpoint"], server.baseURL() + "/oauth/token");
  EXPECT_EQ(metadata.json["registration_endpoint"], server.baseURL() + "/oauth/register");
  EXPECT_EQ(metadata.json["code_challenge_methods_supported"], json({"S256"}));
  EXPECT_EQ(metadata.json["scopes_supported"], json({"readwrite"}));

  Reply registration = server.sendJson("POST", "/oauth/register",
                                       {{"client_name", "Halvark Desktop"},
                                        {"redirect_uris", {kRedirectUri}},
                                        {"token_endpoint_auth_method", "none"}});
  ASSERT_EQ(registration.status, 201) << registration.body;
  EXPECT_FALSE(registration.json["client_id"].get<std::string>().empty());
  EXPECT_EQ(registration.json["redirect_uris"], json({kRedirectUri}));
  EXPECT_EQ(registration.json["grant_types"], json({"authorization_code", "refresh_token"}));
  EXPECT_EQ(registration.json["response_types"], json({"code"}));
  EXPECT_TRUE(registration.json["client_id_issued_at"].is_number_integer());

  Reply noRedirect = server.sendJson("POST", "/oauth/register", {{"client_name", "x"}});
  EXPECT_EQ(noRedirect.status, 400);
  EXPECT_EQ(noRedirect.json["error"], "invalid_redirect_uri");
  Reply confidential = server.sendJson(
      "POST", "/oauth/register",
      {{"redirect_uris", {kRedirectUri}}, {"token_endpoint_auth_method", "client_secret_basic"}});
  EXPECT_EQ(confidential.status, 400);
  EXPECT_EQ(confidential.json["error"], "invalid_client_metadata");

  // Nothing answers outside the base path.
  httplib::Client client("127.0.0.1", server.server().port());
  auto outside = client.Get("/.well-known/oauth-authorization-server");
  ASSERT_TRUE(outside);
  EXPECT_EQ(outside->status, 404);
}

TEST(OAuthRoutes, RoundTripChecksPkceAndSpendsCodesAndRefreshTokens) {
  TestServer server;
  std::string clientId = server.registerClient();

  std::string query;
  for (const auto& [name, value] : authorizeQuery(clientId)) {
    query += (query.empty() ? "?" : "&") + name + "=" + formBody({{"x", value}}).substr(2);
  }
  Reply form = server.get("/oauth/authorize" + query);
  ASSERT_EQ(form.status, 200);
  EXPECT_NE(form.body.find("<form method=\"post\""), std::string::npos);
  EXPECT_NE(form.body.find(kChallenge), std::string::npos);  // carried as a hidden field

  auto fields = authorizeQuery(clientId);
  fields["member"] = "demo";
  fields["password"] = "wrong";
  Reply refused = server.postForm("/oauth/authorize", fields);
  EXPECT_EQ(refused.status, 401);
  EXPECT_NE(refused.body.find("Wrong member name or password."), std::string::npos);
  EXPECT_EQ(refused.header("Location"), "");

  // A wrong verifier is refused, and spends the code.
  std::string code = server.authorize(clientId);
  Reply wrongVerifier = server.exchange(clientId, code, std::string(kVerifier) + "x");
  EXPECT_EQ(wrongVerifier.status, 400);
  EXPECT_EQ(wrongVerifier.json["error"], "invalid_grant");
  EXPECT_EQ(server.exchange(clientId, code).json["error"], "invalid_grant");

  code = server.authorize(clientId);
  Reply tokens = server.exchange(clientId, code);
  ASSERT_EQ(tokens.status, 200) << tokens.body;
  EXPECT_EQ(tokens.json["token_type"], "Bearer");
  EXPECT_EQ(tokens.json["scope"], "readwrite");
  EXPECT_EQ(tokens.json["expires_in"], 3600);
  EXPECT_EQ(tokens.header("Cache-Control"), "no-store");
  Reply reused = server.exchange(clientId, code);
  EXPECT_EQ(reused.status, 400);
  EXPECT_EQ(reused.json["error"], "invalid_grant");
  EXPECT_TRUE(reused.json["error_description"].is_string());

  std::string access = tokens.json["access_token"];
  std::string refresh = tokens.json["refresh_token"];
  EXPECT_EQ(server.get("/api/sync/brains", access).status, 200);

  auto refreshWith = [&](const std::string& token) {
    return server.postForm(
        "/oauth/token",
        {{"grant_type", "refresh_token"}, {"client_id", clientId}, {"refresh_token", token}});
  };
  Reply rotated = refreshWith(refresh);
  ASSERT_EQ(rotated.status, 200) << rotated.body;
  std::string newRefresh = rotated.json["refresh_token"];
  EXPECT_NE(newRefresh, refresh);
  Reply replay = refreshWith(refresh);
  EXPECT_EQ(replay.status, 400);
  EXPECT_EQ(replay.json["error"], "invalid_grant");
  // The replay revokes nothing: what was issued in its place still works.
  EXPECT_EQ(server.get("/api/sync/brains", rotated.json["access_token"]).status, 200);
  EXPECT_EQ(refreshWith(newRefresh).status, 200);

  // Another client cannot use this client's codes.
  std::string otherClient = server.registerClient();
  EXPECT_EQ(server.exchange(otherClient, server.authorize(clientId)).json["error"],
            "invalid_grant");
}

TEST(OAuthRoutes, AuthorizationRefusals) {
  TestServer server;
  std::string clientId = server.registerClient();

  auto query = [](const std::map<std::string, std::string>& fields) {
    std::string out;
    for (const auto& [name, value] : fields) {
      out += (out.empty() ? "?" : "&") + formBody({{name, value}});
    }
    return out;
  };

  // Unknown clients and foreign redirect URIs are never redirected to.
  auto unknown = authorizeQuery("no-such-client");
  Reply unknownClient = server.get("/oauth/authorize" + query(unknown));
  EXPECT_EQ(unknownClient.status, 400);
  EXPECT_EQ(unknownClient.header("Location"), "");
  auto foreign = authorizeQuery(clientId);
  foreign["redirect_uri"] = "https://attacker.example/cb";
  Reply foreignRedirect = server.get("/oauth/authorize" + query(foreign));
  EXPECT_EQ(foreignRedirect.status, 400);
  EXPECT_EQ(foreignRedirect.header("Location"), "");

  auto declined = authorizeQuery(clientId);
  declined["decision"] = "deny";
  Reply denied = server.postForm("/oauth/authorize", declined);
  ASSERT_EQ(denied.status, 302);
  std::string location = denied.header("Location");
  EXPECT_EQ(location.rfind(std::string(kRedirectUri) + "?", 0), 0u) << location;
  EXPECT_EQ(queryItem(location, "error"), "access_denied");
  EXPECT_EQ(queryItem(location, "state"), "s 1");
  EXPECT_EQ(queryItem(location, "code"), std::nullopt);

  struct Case {
    const char* name;
    const char* value;
    const char* error;
  };
  for (const Case& c : {Case{"code_challenge_method", "plain", "invalid_request"},
                        Case{"code_challenge", "", "invalid_request"},
                        Case{"response_type", "token", "unsupported_response_type"},
                        Case{"scope", "admin", "invalid_scope"}}) {
    auto fields = authorizeQuery(clientId);
    fields[c.name] = c.value;
    Reply reply = server.get("/oauth/authorize" + query(fields));
    EXPECT_EQ(reply.status, 302) << c.name;
    EXPECT_EQ(queryItem(reply.header("Location"), "error"), c.error) << c.name;
  }

  Reply badGrant = server.postForm("/oauth/token", {{"grant_type", "password"}});
  EXPECT_EQ(badGrant.json["error"], "unsupported_grant_type");
  Reply badClient = server.postForm(
      "/oauth/token",
      {{"grant_type", "refresh_token"}, {"client_id", "nobody"}, {"refresh_token", "x"}});
  EXPECT_EQ(badClient.status, 401);
  EXPECT_EQ(badClient.json["error"], "invalid_client");
}

TEST(OAuthRoutes, CodesAndAccessTokensExpire) {
  Options options = quietOptions();
  options.tokenLifetimeSeconds = 60;
  TestServer server(options);
  Session session = server.signIn();

  std::string clientId = server.registerClient();
  std::string staleCode = server.authorize(clientId);
  server.control("POST", "/clock", {{"advanceSeconds", 601}});
  EXPECT_EQ(server.exchange(clientId, staleCode).json["error"], "invalid_grant");

  // The access token from before the jump is long expired: 401 with the sync envelope.
  Reply expired = server.get("/api/sync/brains", session.accessToken);
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(expired.errorCode(), "UNAUTHORIZED");
  EXPECT_EQ(server.get("/api/sync/brains", "made-up").status, 401);
  EXPECT_EQ(server.get("/api/sync/brains").status, 401);

  Reply refreshed = server.postForm("/oauth/token", {{"grant_type", "refresh_token"},
                                                     {"client_id", session.clientId},
                                                     {"refresh_token", session.refreshToken}});
  ASSERT_EQ(refreshed.status, 200);
  EXPECT_EQ(refreshed.json["expires_in"], 60);
  std::string fresh = refreshed.json["access_token"];
  EXPECT_EQ(server.get("/api/sync/brains", fresh).status, 200);
  server.control("POST", "/clock", {{"advanceSeconds", 61}});
  EXPECT_EQ(server.get("/api/sync/brains", fresh).status, 401);
}

}  // namespace
}  // namespace devserver::testing
