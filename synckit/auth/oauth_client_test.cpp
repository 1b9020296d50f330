#include "synckit/auth/oauth_client.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "synckit/api/sync_api_error.h"
#include "synckit/auth/oauth_error.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using testing::FakeHTTPTransport;
using testing::thrownBy;

// "a=1&b=2" as its still-encoded pairs, in order.
Pairs splitPairs(const std::string& text) {
  Pairs pairs;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string::npos) end = text.size();
    std::string item = text.substr(start, end - start);
    std::size_t eq = item.find('=');
    pairs.emplace_back(item.substr(0, eq), eq == std::string::npos ? "" : item.substr(eq + 1));
    start = end + 1;
  }
  return pairs;
}

const AuthServerMetadata metadata{
    .issuer = "https://auth.example.test",
    .authorizationEndpoint = "https://auth.example.test/authorize?prompt=login",
    .tokenEndpoint = "https://auth.example.test/token",
    .registrationEndpoint = "https://auth.example.test/register",
    .responseTypesSupported = {},
    .grantTypesSupported = {},
    .codeChallengeMethodsSupported = {},
    .tokenEndpointAuthMethodsSupported = {},
    .scopesSupported = {},
};

const char* const tokenAnswer =
    R"({"access_token":"at","token_type":"Bearer","expires_in":3600,"scope":"readwrite"})";

TEST(OAuthClientTest, DiscoversBelowTheBasePathAndDefaultsMissingLists) {
  FakeHTTPTransport transport;
  transport.enqueue(FakeHTTPTransport::json(200, R"({
    "issuer": "https://auth.example.test",
    "authorization_endpoint": "https://auth.example.test/authorize",
    "token_endpoint": "https://auth.example.test/token",
    "registration_endpoint": "https://auth.example.test/register",
    "scopes_supported": null})"));
  transport.enqueue(FakeHTTPTransport::json(200, R"({
    "issuer": "i", "authorization_endpoint": "https://a/x", "token_endpoint": "https://a/t",
    "registration_endpoint": "https://a/r", "response_types_supported": ["code"],
    "grant_types_supported": ["authorization_code", "refresh_token"],
    "code_challenge_methods_supported": ["S256"],
    "token_endpoint_auth_methods_supported": ["none"], "scopes_supported": ["readwrite"]})"));
  transport.enqueue(FakeHTTPTransport::json(200, R"({"issuer": "i",
    "authorization_endpoint": "https://a/x", "token_endpoint": "https://a/t"})"));

  OAuthClient client("https://sync.example.test/prefix//", transport);
  AuthServerMetadata bare = client.discover();
  EXPECT_EQ(bare.tokenEndpoint, "https://auth.example.test/token");
  EXPECT_TRUE(bare.responseTypesSupported.empty());
  EXPECT_TRUE(bare.scopesSupported.empty());
  EXPECT_TRUE(bare.codeChallengeMethodsSupported.empty());

  AuthServerMetadata full = client.discover();
  EXPECT_EQ(full.grantTypesSupported,
            (std::vector<std::string>{"authorization_code", "refresh_token"}));
  EXPECT_EQ(full.tokenEndpointAuthMethodsSupported, std::vector<std::string>{"none"});
  EXPECT_EQ(full.scopesSupported, std::vector<std::string>{"readwrite"});

  EXPECT_EQ(thrownBy<DecodingError>([&] { client.discover(); }).kind(),
            DecodingError::Kind::keyNotFound);

  HTTPRequest request = transport.requests().front();
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.url, "https://sync.example.test/prefix/.well-known/oauth-authorization-server");
  EXPECT_EQ(request.headers, (HTTPHeaders{{"Accept", "application/json"}}));
  EXPECT_TRUE(request.body.empty());
  EXPECT_EQ(request.timeout, std::chrono::seconds(60));
}

TEST(OAuthClientTest, RegistersAPublicClientWithExactlyThreeFields) {
  FakeHTTPTransport transport;
  transport.enqueue(
      FakeHTTPTransport::json(201, R"({"client_id":"c-1","client_name":"Halvark Desktop",
    "redirect_uris":["halvark://oauth/callback"],"token_endpoint_auth_method":"none",
    "grant_types":["authorization_code","refresh_token"],"response_types":["code"],
    "client_id_issued_at":1700000000})"));
  OAuthClient client("https://sync.example.test", transport);

  ClientRegistration registration = client.registerClient(metadata, OAuthClient::clientName,
                                                          {std::string(OAuthClient::redirectURI)});
  EXPECT_EQ(registration.clientId, "c-1");
  EXPECT_EQ(registration.clientIdIssuedAt, 1700000000);
  EXPECT_EQ(registration.responseTypes, std::vector<std::string>{"code"});

  HTTPRequest request = transport.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://auth.example.test/register");
  EXPECT_EQ(request.header("Accept"), "application/json");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(nlohmann::json::parse(toString(request.body)), nlohmann::json::parse(R"({
    "client_name": "Halvark Desktop", "redirect_uris": ["halvark://oauth/callback"],
    "token_endpoint_auth_method": "none"})"));
}

TEST(OAuthClientTest, AuthorizationURLCarriesEightItemsInOrderReplacingTheQuery) {
  FakeHTTPTransport transport;
  OAuthClient client("https://sync.example.test", transport);
  PKCE pkce("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk");

  std::string url = client.authorizationURL(metadata, "c 1", OAuthClient::redirectURI, "s/t", pkce,
                                            std::nullopt, OAuthClient::scope);
  const std::string prefix = "https://auth.example.test/authorize?";
  ASSERT_EQ(url.substr(0, prefix.size()), prefix);
  EXPECT_EQ(splitPairs(url.substr(prefix.size())),
            (Pairs{{"response_type", "code"},
                   {"client_id", "c%201"},
                   {"redirect_uri", "halvark%3A%2F%2Foauth%2Fcallback"},
                   {"state", "s%2Ft"},
                   {"code_challenge", "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"},
                   {"code_challenge_method", "S256"},
                   {"resource", "https%3A%2F%2Fauth.example.test"},
                   {"scope", "readwrite"}}));

  std::string withResource = client.authorizationURL(metadata, "c", "r", "s", pkce,
                                                     "https://sync.example.test/", "readwrite");
  EXPECT_NE(withResource.find("&resource=https%3A%2F%2Fsync.example.test%2F&scope="),
            std::string::npos);

  AuthServerMetadata broken = metadata;
  broken.authorizationEndpoint = "https://auth example/authorize";
  EXPECT_EQ(thrownBy<SyncClientError>([&] {
              client.authorizationURL(broken, "c", "r", "s", pkce, std::nullopt, "readwrite");
            }),
            SyncClientError::invalidURL("https://auth example/authorize"));
  EXPECT_EQ(transport.requestCount(), 0u);
}

TEST(OAuthClientTest, TokenRequestsSendOnlyTheirFormFields) {
  FakeHTTPTransport transport;
  for (int i = 0; i < 3; ++i) transport.enqueue(FakeHTTPTransport::json(200, tokenAnswer));
  OAuthClient client("https://sync.example.test", transport);
  PKCE pkce("verifier-1");

  OAuthTokenResponse exchanged =
      client.exchangeCode(metadata, "co de", pkce, "c-1", OAuthClient::redirectURI);
  EXPECT_EQ(exchanged, (OAuthTokenResponse{"at", "Bearer", 3600, std::nullopt, "readwrite"}));
  client.exchangeCode(metadata, "code", pkce, "c-1", "halvark://oauth/callback",
                      "https://sync.example.test");
  client.refresh(metadata, "r+1", "c-1");

  auto requests = transport.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (const auto& request : requests) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.url, "https://auth.example.test/token");
    EXPECT_EQ(request.header("Accept"), "application/json");
    EXPECT_EQ(request.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(request.header("Authorization"), std::nullopt);
    EXPECT_EQ(toString(request.body).find("secret"), std::string::npos);
  }
  EXPECT_EQ(toString(requests[0].body),
            "grant_type=authorization_code&client_id=c-1&code=co%20de"
            "&redirect_uri=halvark%3A%2F%2Foauth%2Fcallback&code_verifier=verifier-1");
  Pairs six = splitPairs(toString(requests[1].body));
  ASSERT_EQ(six.size(), 6u);
  EXPECT_EQ(six.back(),
            (std::pair<std::string, std::string>{"resource", "https%3A%2F%2Fsync.example.test"}));
  EXPECT_EQ(toString(requests[2].body),
            "grant_type=refresh_token&client_id=c-1&refresh_token=r%2B1");
}

TEST(OAuthClientTest, NonSuccessAnswersBecomeOAuthErrors) {
  auto failure = [](HTTPResponse response) {
    FakeHTTPTransport transport;
    transport.enqueue(std::move(response));
    OAuthClient client("https://sync.example.test", transport);
    return thrownBy<OAuthError>([&] { client.refresh(metadata, "r", "c"); });
  };

  OAuthError grant = failure(FakeHTTPTransport::json(400, R"({"error":"invalid_grant"})"));
  EXPECT_EQ(grant, OAuthError(400, "invalid_grant", std::nullopt));
  EXPECT_TRUE(grant.isInvalidGrant());
  EXPECT_STREQ(grant.what(), "OAuth error 400 invalid_grant");

  OAuthError client = failure(FakeHTTPTransport::json(
      401, R"({"error":"invalid_client","error_description":"Unknown client"})"));
  EXPECT_TRUE(client.isInvalidClient());
  EXPECT_EQ(client.description(), "OAuth error 401 invalid_client: Unknown client");

  OAuthError page = failure(HTTPResponse{500, {}, toBytes("<h1>Bad gateway</h1>")});
  EXPECT_EQ(page, OAuthError(500, "unknown", "<h1>Bad gateway</h1>"));
  EXPECT_EQ(page.description(), "OAuth error 500 unknown: <h1>Bad gateway</h1>");

  // JSON that is not an OAuth error object is shown as text too.
  EXPECT_EQ(failure(FakeHTTPTransport::json(503, R"({"message":"down"})")),
            OAuthError(503, "unknown", R"({"message":"down"})"));
  EXPECT_EQ(failure(HTTPResponse{502, {}, {}}).description(), "OAuth error 502 unknown");
  EXPECT_EQ(failure(FakeHTTPTransport::json(400, R"({"error":"invalid_grant","n":1e310})")),
            OAuthError(400, "unknown", R"({"error":"invalid_grant","n":1e310})"));
  EXPECT_EQ(failure(HTTPResponse{500, {}, Bytes{'o', 0xFF, 'k', 0xE2, 0x82}}).errorDescription(),
            "o\xEF\xBF\xBDk\xEF\xBF\xBD");
  // 3xx is not success either.
  EXPECT_EQ(failure(HTTPResponse{302, {}, {}}).status(), 302);
}

TEST(OAuthClientTest, TokenAnswersMustCarryTheRequiredMembers) {
  FakeHTTPTransport transport;
  transport.enqueue(FakeHTTPTransport::json(
      200,
      R"({"access_token":"a","token_type":"Bearer","expires_in":60.0,"refresh_token":"r","scope":"readwrite"})"));
  transport.enqueue(FakeHTTPTransport::json(
      200, R"({"access_token":"a","token_type":"Bearer","expires_in":60})"));
  transport.enqueue(FakeHTTPTransport::json(
      200, R"({"access_token":"a","token_type":"Bearer","expires_in":"60","scope":"s"})"));
  transport.enqueue(FakeHTTPTransport::json(200, "not json"));
  transport.enqueue(FakeHTTPTransport::json(
      200, R"({"access_token":"a","token_type":"Bearer","expires_in":60,"scope":"s","n":1e999})"));
  OAuthClient client("https://sync.example.test", transport);

  EXPECT_EQ(client.refresh(metadata, "r", "c"),
            (OAuthTokenResponse{"a", "Bearer", 60, "r", "readwrite"}));
  for (auto kind : {DecodingError::Kind::keyNotFound, DecodingError::Kind::typeMismatch,
                    DecodingError::Kind::dataCorrupted, DecodingError::Kind::dataCorrupted}) {
    EXPECT_EQ(thrownBy<DecodingError>([&] { client.refresh(metadata, "r", "c"); }).kind(), kind);
  }
}

}  // namespace
}  // namespace synckit
