#include "server/test_server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include "server/form_codec.h"

namespace devserver::testing {

using nlohmann::json;

std::string Reply::header(const std::string& name) const {
  auto it = headers.find(name);
  return it == headers.end() ? std::string() : it->second;
}

std::string Reply::errorCode() const {
  if (!json.is_object() || !json.contains("error") || !json["error"].is_object()) return "";
  return json["error"].value("code", "");
}

Options quietOptions() {
  Options options;
  options.quiet = true;
  options.members = {{"demo", "demo"}, {"ann", "secret"}};
  return options;
}

TestServer::TestServer(Options options) : basePath_(options.basePath) {
  server_ = std::make_unique<DevServer>(std::move(options));
  server_->start();
}

TestServer::~TestServer() = default;

Reply TestServer::send(const std::string& method, const std::string& path, const std::string& body,
                       const std::string& contentType, const std::string& token) {
  httplib::Client client("127.0.0.1", server_->port());
  client.set_read_timeout(10, 0);
  httplib::Headers headers;
  if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
  std::string target = basePath_ + path;
  auto perform = [&]() {
    if (method == "GET") return client.Get(target, headers);
    if (method == "PUT") return client.Put(target, headers, body, contentType);
    if (method == "DELETE") return client.Delete(target, headers, body, contentType);
    return client.Post(target, headers, body, contentType);
  };
  httplib::Result result = perform();
  Reply reply;
  if (!result) return reply;
  reply.status = result->status;
  reply.body = result->body;
  for (const auto& [name, value] : result->headers) reply.headers.emplace(name, value);
  if (result->get_header_value("Content-Type").rfind("application/json", 0) == 0) {
    reply.json = json::parse(reply.body, nullptr, false);
  }
  return reply;
}

Reply TestServer::get(const std::string& path, const std::string& token) {
  return send("GET", path, "", "", token);
}

Reply TestServer::sendJson(const std::string& method, const std::string& path, const json& body,
                           const std::string& token) {
  return send(method, path, body.dump(), "application/json", token);
}

Reply TestServer::postForm(const std::string& path,
                           const std::map<std::string, std::string>& fields) {
  return send("POST", path, formBody(fields), "application/x-www-form-urlencoded");
}

json TestServer::control(const std::string& method, const std::string& path, const json& body) {
  Reply reply = sendJson(method, "/_control" + path, body);
  EXPECT_GE(reply.status, 200) << method << " " << path << ": " << reply.body;
  EXPECT_LT(reply.status, 300) << method << " " << path << ": " << reply.body;
  return reply.json;
}

std::string TestServer::registerClient() {
  Reply reply = sendJson("POST", "/oauth/register",
                         {{"client_name", "Halvark Desktop"},
                          {"redirect_uris", {kRedirectUri}},
                          {"token_endpoint_auth_method", "none"}});
  EXPECT_EQ(reply.status, 201) << reply.body;
  return reply.json.value("client_id", "");
}

std::string TestServer::authorize(const std::string& clientId, const std::string& member,
                                  const std::string& password) {
  Reply reply = postForm("/oauth/authorize", {{"response_type", "code"},
                                              {"client_id", clientId},
                                              {"redirect_uri", kRedirectUri},
                                              {"state", "st-1"},
                                              {"code_challenge", kChallenge},
                                              {"code_challenge_method", "S256"},
                                              {"scope", "readwrite"},
                                              {"member", member},
                                              {"password", password},
                                              {"decision", "allow"}});
  EXPECT_EQ(reply.status, 302) << reply.body;
  std::string location = reply.header("Location");
  EXPECT_EQ(queryItem(location, "state"), "st-1");
  return queryItem(location, "code").value_or("");
}

Reply TestServer::exchange(const std::string& clientId, const std::string& code,
                           const std::string& verifier) {
  return postForm("/oauth/token", {{"grant_type", "authorization_code"},
                                   {"client_id", clientId},
                                   {"code", code},
                                   {"redirect_uri", kRedirectUri},
                                   {"code_verifier", verifier}});
}

Session TestServer::signIn(const std::string& member, const std::string& password) {
  Session session;
  session.clientId = registerClient();
  Reply tokens = exchange(session.clientId, authorize(session.clientId, member, password));
  EXPECT_EQ(tokens.status, 200) << tokens.body;
  session.accessToken = tokens.json.value("access_token", "");
  session.refreshToken = tokens.json.value("refresh_token", "");
  Reply device = sendJson("POST", "/api/sync/devices",
                          {{"name", "test box"}, {"platform", "linux"}}, session.accessToken);
  EXPECT_EQ(device.status, 201) << device.body;
  session.deviceId = device.json["device"].value("id", "");
  return session;
}

std::string TestServer::createBrain(const std::string& name, const std::string& slug,
                                    const std::optional<std::vector<std::string>>& members) {
  json body = {{"name", name}, {"slug", slug}};
  if (members) body["members"] = *members;
  return control("POST", "/brains", body)["brain"].value("id", "");
}

bool isWireDate(const std::string& text) {
  static constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    bool ok = shape[i] == 'd' ? (text[i] >= '0' && text[i] <= '9') : text[i] == shape[i];
    if (!ok) return false;
  }
  return true;
}

std::string formBody(const std::map<std::string, std::string>& fields) {
  std::string body;
  for (const auto& [name, value] : fields) {
    if (!body.empty()) body += "&";
    body += percentEncode(name) + "=" + percentEncode(value);
  }
  return body;
}

std::optional<std::string> queryItem(const std::string& url, const std::string& name) {
  auto question = url.find('?');
  if (question == std::string::npos) return std::nullopt;
  auto fields = decodeForm(std::string_view(url).substr(question + 1));
  auto it = fields.find(name);
  if (it == fields.end()) return std::nullopt;
  return it->second;
}

}  // namespace devserver::testing
