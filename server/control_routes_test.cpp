#include <gtest/gtest.h>

#include <chrono>

#include "server/test_server.h"

namespace devserver::testing {
namespace {

using nlohmann::json;

TEST(ControlRoutes, FaultsHitTheNextMatchingRequestsOnly) {
  TestServer server;
  Session session = server.signIn();

  server.control("POST", "/faults",
                 {{"path", "/api/sync/brains"},
                  {"method", "GET"},
                  {"count", 2},
                  {"status", 503},
                  {"code", "UNAVAILABLE"},
                  {"message", "maintenance"}});
  // Another path and another method pass untouched.
  EXPECT_EQ(server.get("/api/sync/devices", session.accessToken).status, 200);
  for (int i = 0; i < 2; ++i) {
    Reply faulted = server.get("/api/sync/brains", session.accessToken);
    EXPECT_EQ(faulted.status, 503);
    EXPECT_EQ(faulted.json,
              json({{"error", {{"code", "UNAVAILABLE"}, {"message", "maintenance"}}}}));
  }
  EXPECT_EQ(server.get("/api/sync/brains", session.accessToken).status, 200);

  server.control("POST", "/faults", {{"path", "/api/sync/brains"}, {"drop", true}});
  // The control interface itself is never faulted.
  EXPECT_EQ(server.control("GET", "/faults")["faults"].size(), 1u);
  Reply dropped = server.get("/api/sync/brains", session.accessToken);
  EXPECT_EQ(dropped.status, 0) << "a dropped connection has no answer";
  EXPECT_EQ(server.get("/api/sync/brains", session.accessToken).status, 200);

  server.control("POST", "/faults", {{"path", "/api/sync/devices"}, {"delayMs", 300}});
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(server.get("/api/sync/devices", session.accessToken).status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));

  server.control("POST", "/faults", {{"path", "/api/sync"}, {"count", 5}, {"status", 500}});
  server.control("DELETE", "/faults");
  EXPECT_EQ(server.get("/api/sync/brains", session.accessToken).status, 200);

  Reply pointless = server.sendJson("POST", "/_control/faults", {{"path", "/x"}});
  EXPECT_EQ(pointless.status, 400);
}

TEST(ControlRoutes, TreeGrantsAndAuthorsOfControlWrites) {
  TestServer server;
  Session session = server.signIn();
  std::string brainId = server.createBrain("Team", "team");
  std::string base = "/brains/" + brainId;

  server.control("POST", base + "/write", {{"path", "n.md"}, {"content", "v1"}, {"title", "Note"}});
  server.control("POST", base + "/write", {{"path", "n.md"}, {"content", "v2"}});
  server.control("POST", base + "/write", {{"path", "bin/x.dat"}, {"base64", "AAEC/w=="}});
  server.control("POST", base + "/mkdir", {{"path", "empty"}});

  json tree = server.control("GET", base + "/tree");
  EXPECT_EQ(tree["brain"]["slug"], "team");
  std::map<std::string, json> byPath;
  for (const auto& node : tree["nodes"]) byPath[node["path"]] = node;
  EXPECT_EQ(byPath["n.md"]["content"], "v2");
  EXPECT_EQ(byPath["n.md"]["title"], "Note");
  EXPECT_EQ(byPath["n.md"]["version"], 2);
  EXPECT_EQ(byPath["bin/x.dat"]["kind"], "blob");
  EXPECT_EQ(byPath["bin/x.dat"]["blobSize"], 4);
  EXPECT_EQ(byPath["bin/x.dat"]["base64"], "AAEC/w==");
  EXPECT_EQ(byPath["empty"]["isDirectory"], true);
  EXPECT_EQ(byPath["bin"]["isDirectory"], true);

  // The default author of a control write is nobody signed in.
  Reply feed = server.get("/api/sync/brains/" + brainId +
                              "/changes?cursor=" + tree["brain"]["headCursor"].get<std::string>() +
                              "&deviceId=" + session.deviceId,
                          session.accessToken);
  EXPECT_EQ(feed.json["entries"].size(), 0u);

  Reply fileRead = server.get("/api/sync/brains/" + brainId + "/file?path=bin%2Fx.dat&at=x",
                              session.accessToken);
  EXPECT_EQ(fileRead.body, std::string("\x00\x01\x02\xff", 4));

  server.control("POST", base + "/revoke", {{"member", "demo"}});
  EXPECT_EQ(server.get("/api/sync/brains", session.accessToken).json["brains"].size(), 0u);
  EXPECT_EQ(server.get("/api/sync/brains/" + brainId + "/file?path=n.md&at=x", session.accessToken)
                .errorCode(),
            "NOT_FOUND");
  server.control("POST", base + "/grant", {{"member", "demo"}});
  EXPECT_EQ(server.get("/api/sync/brains", session.accessToken).json["brains"].size(), 1u);
  EXPECT_EQ(server.sendJson("POST", "/_control" + base + "/grant", {{"member", "nobody"}}).status,
            404);
  EXPECT_EQ(server.sendJson("POST", "/_control/brains", {{"name", "No slug"}}).status, 400);
}

TEST(ControlRoutes, ExpiringTokensForcesRefreshOrSignIn) {
  TestServer server;
  Session demo = server.signIn();
  Session ann = server.signIn("ann", "secret");

  EXPECT_EQ(server.control("POST", "/tokens/expire", {{"member", "demo"}})["expired"], 1);
  EXPECT_EQ(server.get("/api/sync/brains", demo.accessToken).status, 401);
  EXPECT_EQ(server.get("/api/sync/brains", ann.accessToken).status, 200);

  auto refresh = [&](const Session& session) {
    return server.postForm("/oauth/token", {{"grant_type", "refresh_token"},
                                            {"client_id", session.clientId},
                                            {"refresh_token", session.refreshToken}});
  };
  Reply renewed = refresh(demo);
  ASSERT_EQ(renewed.status, 200);
  EXPECT_EQ(server.get("/api/sync/brains", renewed.json["access_token"]).status, 200);

  server.control("POST", "/tokens/expire", {{"refresh", true}});
  EXPECT_EQ(server.get("/api/sync/brains", ann.accessToken).status, 401);
  EXPECT_EQ(refresh(ann).json["error"], "invalid_grant");
}

}  // namespace
}  // namespace devserver::testing
