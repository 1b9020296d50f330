#include "server/state_codec.h"

#include "server/service_model.h"

namespace devserver {

using nlohmann::json;

// Field-by-field conversions; the names are the model's own.

static void to_json(json& j, const Author& a) {
  j = {{"kind", a.kind}, {"memberId", a.memberId}};
  if (a.harness) j["harness"] = *a.harness;
}
static void from_json(const json& j, Author& a) {
  a.kind = j.at("kind").get<std::string>();
  a.memberId = j.at("memberId").get<std::string>();
  if (j.contains("harness")) a.harness = j.at("harness").get<std::string>();
}

static void to_json(json& j, const Node& n) {
  j = {{"nodeId", n.nodeId},           {"path", n.path},          {"title", n.title},
       {"isDirectory", n.isDirectory}, {"kind", n.kind},          {"text", n.text},
       {"version", n.version},         {"updatedAt", n.updatedAt}};
  if (n.blobHash) j["blobHash"] = *n.blobHash;
  if (n.blobSize) j["blobSize"] = *n.blobSize;
}
static void from_json(const json& j, Node& n) {
  n.nodeId = j.at("nodeId").get<std::string>();
  n.path = j.at("path").get<std::string>();
  n.title = j.at("title").get<std::string>();
  n.isDirectory = j.at("isDirectory").get<bool>();
  n.kind = j.at("kind").get<std::string>();
  n.text = j.at("text").get<std::string>();
  n.version = j.at("version").get<std::int64_t>();
  n.updatedAt = j.at("updatedAt").get<std::int64_t>();
  if (j.contains("blobHash")) n.blobHash = j.at("blobHash").get<std::string>();
  if (j.contains("blobSize")) n.blobSize = j.at("blobSize").get<std::int64_t>();
}

static void to_json(json& j, const FeedRecord& r) {
  j = {
      {"seq", r.seq}, {"at", r.at}, {"author", r.author}, {"deviceId", r.deviceId}, {"ops", r.ops}};
}
static void from_json(const json& j, FeedRecord& r) {
  r.seq = j.at("seq").get<std::int64_t>();
  r.at = j.at("at").get<std::int64_t>();
  r.author = j.at("author").get<Author>();
  r.deviceId = j.at("deviceId").get<std::string>();
  r.ops = j.at("ops");
}

static void to_json(json& j, const Device& d) {
  j = {{"id", d.id},
       {"member", d.member},
       {"name", d.name},
       {"platform", d.platform},
       {"createdAt", d.createdAt},
       {"revoked", d.revoked}};
  if (d.lastSeenAt) j["lastSeenAt"] = *d.lastSeenAt;
}
static void from_json(const json& j, Device& d) {
  d.id = j.at("id").get<std::string>();
  d.member = j.at("member").get<std::string>();
  d.name = j.at("name").get<std::string>();
  d.platform = j.at("platform").get<std::string>();
  d.createdAt = j.at("createdAt").get<std::int64_t>();
  d.revoked = j.at("revoked").get<bool>();
  if (j.contains("lastSeenAt")) d.lastSeenAt = j.at("lastSeenAt").get<std::int64_t>();
}

static void to_json(json& j, const OAuthClientRecord& c) {
  j = {{"clientId", c.clientId},
       {"clientName", c.clientName},
       {"redirectUris", c.redirectUris},
       {"issuedAt", c.issuedAt}};
}
static void from_json(const json& j, OAuthClientRecord& c) {
  c.clientId = j.at("clientId").get<std::string>();
  c.clientName = j.at("clientName").get<std::string>();
  c.redirectUris = j.at("redirectUris").get<std::vector<std::string>>();
  c.issuedAt = j.at("issuedAt").get<std::int64_t>();
}

static void to_json(json& j, const AuthCodeRecord& c) {
  j = {{"clientId", c.clientId},
       {"redirectUri", c.redirectUri},
       {"codeChallenge", c.codeChallenge},
       {"member", c.member},
       {"scope", c.scope},
       {"expiresAt", c.expiresAt}};
  if (c.resource) j["resource"] = *c.resource;
}
static void from_json(const json& j, AuthCodeRecord& c) {
  c.clientId = j.at("clientId").get<std::string>();
  c.redirectUri = j.at("redirectUri").get<std::string>();
  c.codeChallenge = j.at("codeChallenge").get<std::string>();
  c.member = j.at("member").get<std::string>();
  c.scope = j.at("scope").get<std::string>();
  c.expiresAt = j.at("expiresAt").get<std::int64_t>();
  if (j.contains("resource")) c.resource = j.at("resource").get<std::string>();
}

static void to_json(json& j, const TokenRecord& t) {
  j = {{"member", t.member},
       {"clientId", t.clientId},
       {"scope", t.scope},
       {"expiresAt", t.expiresAt}};
}
static void from_json(const json& j, TokenRecord& t) {
  t.member = j.at("member").get<std::string>();
  t.clientId = j.at("clientId").get<std::string>();
  t.scope = j.at("scope").get<std::string>();
  t.expiresAt = j.at("expiresAt").get<std::int64_t>();
}

json encodeState(const ServiceModel& model) {
  json brains = json::array();
  for (const auto& [id, brain] : model.brains) {
    const BrainTree& tree = brain.tree;
    json nodes = json::array();
    for (const auto& [path, node] : tree.nodes()) nodes.push_back(node);
    brains.push_back({{"id", brain.id},
                      {"teamId", brain.teamId},
                      {"name", brain.name},
                      {"slug", brain.slug},
                      {"grants", brain.grants},
                      {"epoch", tree.epoch()},
                      {"readOnly", tree.readOnlyFolders()},
                      {"nodes", std::move(nodes)},
                      {"log", tree.log()}});
  }
  json devices = json::array();
  for (const auto& [id, device] : model.devices) devices.push_back(device);
  return {{"version", 1},
          {"teamId", model.teamId},
          {"devices", std::move(devices)},
          {"brains", std::move(brains)},
          {"oauth",
           {{"clients", model.auth.clients},
            {"codes", model.auth.codes},
            {"accessTokens", model.auth.accessTokens},
            {"refreshTokens", model.auth.refreshTokens}}}};
}

void decodeState(const json& document, ServiceModel& model) {
  model.teamId = document.at("teamId").get<std::string>();
  model.devices.clear();
  for (const auto& item : document.at("devices")) {
    auto device = item.get<Device>();
    model.devices[device.id] = device;
  }
  model.brains.clear();
  for (const auto& item : document.at("brains")) {
    std::map<std::string, Node> nodes;
    for (const auto& n : item.at("nodes")) {
      auto node = n.get<Node>();
      nodes[node.path] = node;
    }
    Brain brain{item.at("id").get<std::string>(),
                item.at("teamId").get<std::string>(),
                item.at("name").get<std::string>(),
                item.at("slug").get<std::string>(),
                item.at("grants").get<std::set<std::string>>(),
                BrainTree(item.at("epoch").get<std::string>(), std::move(nodes),
                          item.at("log").get<std::vector<FeedRecord>>(),
                          item.at("readOnly").get<std::set<std::string>>())};
    model.brains.emplace(brain.id, std::move(brain));
  }
  const json& oauth = document.at("oauth");
  model.auth.clients = oauth.at("clients").get<std::map<std::string, OAuthClientRecord>>();
  model.auth.codes = oauth.at("codes").get<std::map<std::string, AuthCodeRecord>>();
  model.auth.accessTokens = oauth.at("accessTokens").get<std::map<std::string, TokenRecord>>();
  model.auth.refreshTokens = oauth.at("refreshTokens").get<std::map<std::string, TokenRecord>>();
}

}  // namespace devserver
