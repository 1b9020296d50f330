#include "tests/e2e/devserver_session.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <map>

#include "synckit/auth/pkce.h"
#include "synckit/base/crypto.h"
#include "synckit/base/url.h"

namespace halvark::e2e {
namespace {

std::string percentDecode(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(text[i] == '+' ? ' ' : text[i]);
    }
  }
  return out;
}

std::map<std::string, std::string> queryOf(const std::string& url) {
  std::map<std::string, std::string> items;
  auto parts = synckit::URLComponents::parse(url);
  if (!parts || !parts->percentEncodedQuery) return items;
  std::string_view query = *parts->percentEncodedQuery;
  while (!query.empty()) {
    auto amp = query.find('&');
    std::string_view item = query.substr(0, amp);
    auto eq = item.find('=');
    items[percentDecode(item.substr(0, eq))] =
        eq == std::string_view::npos ? "" : percentDecode(item.substr(eq + 1));
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
  }
  return items;
}

}  // namespace

DevServerSession::DevServerSession()
    : server_({"--port", "0", "--base-path", "/svc", "--seed", "demo", "--quiet"}),
      oauth_(server_.baseURL(), transport_),
      tokens_(server_.baseURL(), transport_, tokenStore_, [this] { return clientId_; }),
      api_(server_.baseURL(), transport_, tokens_) {}

std::string DevServerSession::signInInBrowser(const std::string& authorizationURL) {
  auto parts = synckit::URLComponents::parse(authorizationURL);
  EXPECT_TRUE(parts && parts->host && parts->port);
  httplib::Client browser(*parts->host, *parts->port);
  std::string target = parts->percentEncodedPath + "?" + parts->percentEncodedQuery.value_or("");
  auto page = browser.Get(target.c_str());
  EXPECT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_NE(page->body.find("<form"), std::string::npos);

  std::string form =
      parts->percentEncodedQuery.value_or("") + "&member=demo&password=demo&decision=allow";
  auto answer =
      browser.Post(parts->percentEncodedPath.c_str(), form, "application/x-www-form-urlencoded");
  EXPECT_TRUE(answer);
  EXPECT_EQ(answer->status, 302);
  return answer->get_header_value("Location");
}

void DevServerSession::signIn() {
  metadata_ = oauth_.discover();
  auto registration = oauth_.registerClient(*metadata_, synckit::OAuthClient::clientName,
                                            {std::string(synckit::OAuthClient::redirectURI)});
  clientId_ = registration.clientId;
  auto pkce = synckit::PKCE::generate();
  std::string state = synckit::hexLower(synckit::secureRandomBytes(8));
  std::string url =
      oauth_.authorizationURL(*metadata_, clientId_, synckit::OAuthClient::redirectURI, state, pkce,
                              std::nullopt, synckit::OAuthClient::scope);
  std::string callback = signInInBrowser(url);
  ASSERT_TRUE(callback.starts_with("halvark://oauth/callback?")) << callback;
  auto query = queryOf(callback);
  ASSERT_EQ(query["state"], state);
  ASSERT_FALSE(query["code"].empty());

  auto response = oauth_.exchangeCode(*metadata_, query["code"], pkce, clientId_,
                                      synckit::OAuthClient::redirectURI);
  tokens_.signIn(response);
  deviceId_ = api_.registerDevice("e2e-machine", "linux").id;
}

nlohmann::json DevServerSession::control(const std::string& method, const std::string& path,
                                         const nlohmann::json& body) {
  synckit::HTTPRequest request;
  request.method = method;
  request.url = server_.baseURL() + "/_control" + path;
  request.headers = {{"Content-Type", "application/json"}};
  request.body = synckit::toBytes(body.dump());
  auto response = transport_.send(request);
  EXPECT_LT(response.status, 300) << method << " " << path << ": "
                                  << synckit::toString(response.body);
  return nlohmann::json::parse(synckit::toString(response.body), nullptr, false);
}

synckit::Brain DevServerSession::demoBrain() {
  auto brains = api_.listBrains();
  auto demo =
      std::find_if(brains.begin(), brains.end(), [](const auto& b) { return b.slug == "demo"; });
  EXPECT_NE(demo, brains.end());
  return demo == brains.end() ? synckit::Brain{} : *demo;
}

}  // namespace halvark::e2e
