#include <gtest/gtest.h>

#include "server/test_server.h"

namespace devserver::testing {
namespace {

using nlohmann::json;

// SHA-256 of "abc".
constexpr const char* kAbcHash = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// Status and error code of an answer, as "403 FORBIDDEN".
std::string outcome(const Reply& reply) {
  return std::to_string(reply.status) + " " + reply.errorCode();
}

class SyncRoutes : public ::testing::Test {
 protected:
  TestServer server;
  Session session = server.signIn();
  std::string brainId = server.createBrain("Notes", "notes");

  std::string brainPath(const std::string& rest) { return "/api/sync/brains/" + brainId + rest; }

  Reply putText(const std::string& path, const std::string& body,
                const std::string& deviceId = "") {
    return server.sendJson("PUT", brainPath("/file"),
                           {{"deviceId", deviceId.empty() ? session.deviceId : deviceId},
                            {"path", path},
                            {"body", body}},
                           session.accessToken);
  }
  Reply move(const std::string& from, const std::string& to) {
    return server.sendJson("POST", brainPath("/move"),
                           {{"deviceId", session.deviceId}, {"fromPath", from}, {"toPath", to}},
                           session.accessToken);
  }
  Reply remove(const std::string& path) {
    return server.sendJson("DELETE", brainPath("/file"),
                           {{"deviceId", session.deviceId}, {"path", path}}, session.accessToken);
  }
  Reply changes(const std::optional<std::string>& cursor) {
    std::string query = "?";
    if (cursor) query += "cursor=" + formBody({{"c", *cursor}}).substr(2) + "&";
    return server.get(brainPath("/changes" + query + "deviceId=" + session.deviceId),
                      session.accessToken);
  }
  Reply read(const std::string& path) {
    return server.get(brainPath("/file?path=" + formBody({{"p", path}}).substr(2) + "&at=now"),
                      session.accessToken);
  }
  void controlWrite(const std::string& path, const std::string& content, const json& as = {}) {
    json body = {{"path", path}, {"content", content}};
    if (!as.is_null()) body["as"] = as;
    server.control("POST", "/brains/" + brainId + "/write", body);
  }
};

TEST_F(SyncRoutes, DevicesAndBrainsOfTheSignedInMember) {
  Reply devices = server.get("/api/sync/devices", session.accessToken);
  ASSERT_EQ(devices.status, 200);
  ASSERT_EQ(devices.json["devices"].size(), 1u);
  const json& device = devices.json["devices"][0];
  EXPECT_EQ(device["id"], session.deviceId);
  EXPECT_EQ(device["name"], "test box");
  EXPECT_EQ(device["platform"], "linux");
  EXPECT_TRUE(isWireDate(device["createdAt"]));

  server.createBrain("Private", "private", std::vector<std::string>{"ann"});
  Reply brains = server.get("/api/sync/brains", session.accessToken);
  ASSERT_EQ(brains.json["brains"].size(), 1u);
  const json& brain = brains.json["brains"][0];
  EXPECT_EQ(brain["id"], brainId);
  EXPECT_EQ(brain["name"], "Notes");
  EXPECT_EQ(brain["slug"], "notes");
  EXPECT_TRUE(brain["teamId"].is_string());
  EXPECT_TRUE(brain["headCursor"].is_string());

  Session ann = server.signIn("ann", "secret");
  std::set<std::string> annSlugs;
  Reply annBrains = server.get("/api/sync/brains", ann.accessToken);
  for (const auto& item : annBrains.json["brains"]) annSlugs.insert(item["slug"]);
  EXPECT_EQ(annSlugs, (std::set<std::string>{"notes", "private"}));
  // Ann's device is not demo's.
  EXPECT_EQ(server.get("/api/sync/devices", ann.accessToken).json["devices"].size(), 1u);
  EXPECT_EQ(outcome(putText("a.md", "x", ann.deviceId)), "403 FORBIDDEN");
}

TEST_F(SyncRoutes, FeedResetsThenFollowsTheCursor) {
  controlWrite("seed.md", "one");
  Reply reset = changes(std::nullopt);
  ASSERT_EQ(reset.status, 200);
  EXPECT_EQ(reset.json["reset"], true);
  ASSERT_EQ(reset.json["snapshot"].size(), 1u);
  const json& node = reset.json["snapshot"][0];
  EXPECT_EQ(node["path"], "seed.md");
  EXPECT_EQ(node["title"], "seed");
  EXPECT_EQ(node["isDirectory"], false);
  EXPECT_EQ(node["kind"], "text");
  EXPECT_TRUE(isWireDate(node["updatedAt"]));
  std::string cursor = reset.json["cursor"];

  // Nothing new: no entries, same cursor.
  Reply quiet = changes(cursor);
  EXPECT_EQ(quiet.json["reset"], false);
  EXPECT_EQ(quiet.json["entries"].size(), 0u);
  EXPECT_EQ(quiet.json["cursor"], cursor);

  // Another device's changes appear with author, time and ops; the member's own
  // write is left out while the cursor moves past it.
  controlWrite("a/b/c.md", "hello",
               {{"kind", "agent"}, {"memberId", "bot"}, {"harness", "cli"}, {"deviceId", "other"}});
  ASSERT_EQ(putText("mine.md", "mine").status, 200);
  controlWrite("seed.md", "two");
  Reply page = changes(cursor);
  ASSERT_EQ(page.json["reset"], false);
  const json& entries = page.json["entries"];
  ASSERT_EQ(entries.size(), 2u) << page.body;
  EXPECT_EQ(entries[0]["author"],
            json({{"kind", "agent"}, {"memberId", "bot"}, {"harness", "cli"}}));
  EXPECT_TRUE(isWireDate(entries[0]["at"]));
  json ops = entries[0]["ops"];
  ASSERT_EQ(ops.size(), 3u);
  EXPECT_EQ(ops[0], json({{"kind", "mkdir"}, {"path", "a"}, {"title", "a"}}));
  EXPECT_EQ(ops[1], json({{"kind", "mkdir"}, {"path", "a/b"}, {"title", "b"}}));
  EXPECT_EQ(ops[2]["kind"], "create");
  EXPECT_EQ(ops[2]["path"], "a/b/c.md");
  EXPECT_EQ(ops[2]["isDirectory"], false);
  EXPECT_EQ(ops[2]["nodeKind"], "text");
  EXPECT_EQ(ops[2]["tags"], json::array());
  EXPECT_EQ(entries[1]["ops"][0]["kind"], "update");
  EXPECT_EQ(entries[1]["ops"][0]["bodyChanged"], true);
  EXPECT_EQ(entries[1]["author"]["kind"], "member");
  EXPECT_EQ(page.json["cursor"], entries[1]["cursor"]);
  std::string next = page.json["cursor"];

  // Moves and deletes show up as their own ops.
  ASSERT_EQ(move("a/b/c.md", "c.md").status, 200);
  server.control("POST", "/brains/" + brainId + "/move",
                 {{"fromPath", "c.md"}, {"toPath", "d.md"}});
  server.control("POST", "/brains/" + brainId + "/delete", {{"path", "a"}});
  Reply later = changes(next);
  ASSERT_EQ(later.json["entries"].size(), 2u) << later.body;
  EXPECT_EQ(later.json["entries"][0]["ops"][0],
            json({{"kind", "move"}, {"path", "c.md"}, {"newPath", "d.md"}}));
  EXPECT_EQ(later.json["entries"][1]["ops"][0], json({{"kind", "delete"}, {"path", "a"}}));

  // An unknown cursor, or one from before an invalidation, resets.
  EXPECT_EQ(changes("garbage").json["reset"], true);
  std::string head = later.json["cursor"];
  server.control("POST", "/brains/" + brainId + "/invalidate-cursors");
  Reply invalidated = changes(head);
  EXPECT_EQ(invalidated.json["reset"], true);
  std::set<std::string> paths;
  for (const auto& item : invalidated.json["snapshot"]) paths.insert(item["path"]);
  EXPECT_EQ(paths, (std::set<std::string>{"d.md", "mine.md", "seed.md"}));
  EXPECT_EQ(changes(invalidated.json["cursor"].get<std::string>()).json["reset"], false);
}

TEST_F(SyncRoutes, TextAndBlobFilesRoundTrip) {
  Reply written = putText("docs/readme.md", "héllo");
  ASSERT_EQ(written.status, 200) << written.body;
  EXPECT_EQ(written.json["node"]["path"], "docs/readme.md");
  std::string nodeId = written.json["node"]["nodeId"];
  Reply text = read("docs/readme.md");
  ASSERT_EQ(text.status, 200);
  EXPECT_EQ(text.header("Content-Type").rfind("application/json", 0), 0u);
  EXPECT_EQ(text.json["content"], "héllo");
  EXPECT_EQ(text.json["path"], "docs/readme.md");
  EXPECT_TRUE(text.json["at"].is_string());
  // Writing again keeps the node and moves the head cursor.
  Reply rewritten = putText("docs/readme.md", "second");
  EXPECT_EQ(rewritten.json["node"]["nodeId"], nodeId);
  EXPECT_NE(rewritten.json["cursor"], written.json["cursor"]);

  Reply upload = server.send("POST", brainPath("/blobs?deviceId=" + session.deviceId), "abc",
                             "application/octet-stream", session.accessToken);
  ASSERT_EQ(upload.status, 200) << upload.body;
  EXPECT_EQ(upload.json, json({{"hash", kAbcHash}, {"size", 3}}));

  auto putBlob = [&](const std::string& path, const std::string& hash, int size) {
    return server.sendJson(
        "PUT", brainPath("/file"),
        {{"deviceId", session.deviceId}, {"path", path}, {"blobHash", hash}, {"blobSize", size}},
        session.accessToken);
  };
  EXPECT_EQ(putBlob("img/a.bin", kAbcHash, 4).errorCode(), "UNKNOWN_BLOB");
  EXPECT_EQ(putBlob("img/a.bin", std::string(64, 'e'), 3).status, 400);
  ASSERT_EQ(putBlob("img/a.bin", kAbcHash, 3).status, 200);
  Reply blob = read("img/a.bin");
  ASSERT_EQ(blob.status, 200);
  EXPECT_EQ(blob.header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(blob.body, "abc");
  json snapshot = changes(std::nullopt).json["snapshot"];
  auto it = std::find_if(snapshot.begin(), snapshot.end(),
                         [](const json& n) { return n["path"] == "img/a.bin"; });
  ASSERT_NE(it, snapshot.end());
  EXPECT_EQ((*it)["kind"], "blob");
  EXPECT_EQ((*it)["blobHash"], kAbcHash);
  EXPECT_EQ((*it)["blobSize"], 3);

  // Folders and files do not stand in for each other.
  EXPECT_EQ(putText("docs", "x").errorCode(), "CONFLICT");
  EXPECT_EQ(putText("docs/readme.md/inner.md", "x").errorCode(), "CONFLICT");
  EXPECT_EQ(read("docs").errorCode(), "NOT_FOUND");
}

TEST_F(SyncRoutes, ErrorCodes) {
  ASSERT_EQ(putText("a.md", "a").status, 200);
  ASSERT_EQ(putText("b.md", "b").status, 200);

  EXPECT_EQ(outcome(server.get(brainPath("/changes?deviceId=" + session.deviceId))),
            "401 UNAUTHORIZED");
  EXPECT_EQ(outcome(server.get(brainPath("/changes?deviceId=0f0f0f0f-0000-4000-8000-000000000000"),
                               session.accessToken)),
            "403 FORBIDDEN");
  EXPECT_EQ(outcome(server.get("/api/sync/brains/0f0f0f0f-0000-4000-8000-000000000000/"
                               "changes?deviceId=" +
                                   session.deviceId,
                               session.accessToken)),
            "404 NOT_FOUND");
  std::string upper = brainId;
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  EXPECT_EQ(server
                .get("/api/sync/brains/" + upper + "/changes?deviceId=" + session.deviceId,
                     session.accessToken)
                .status,
            200);

  EXPECT_EQ(outcome(read("missing.md")), "404 NOT_FOUND");
  // Echoed in the message, so it must not break the answer.
  EXPECT_EQ(outcome(read("bad\xff.md")), "404 NOT_FOUND");
  EXPECT_EQ(outcome(remove("missing.md")), "404 NOT_FOUND");
  EXPECT_EQ(outcome(move("missing.md", "x.md")), "404 NOT_FOUND");
  EXPECT_EQ(outcome(move("a.md", "b.md")), "409 CONFLICT");

  for (const std::string& bad :
       std::vector<std::string>{"", "/a.md", "a.md/", "a//b.md", "./a.md", "a/../b.md", "a\\b.md",
                                std::string("a\0b", 3)}) {
    EXPECT_EQ(outcome(putText(bad, "x")), "400 BAD_REQUEST") << json(bad).dump();
  }
  EXPECT_EQ(move("a.md", "../a.md").status, 400);
  EXPECT_EQ(move("b.md", "a.md/b").status, 409);  // a file is in the way

  EXPECT_EQ(outcome(server.send("PUT", brainPath("/file"), "{not json", "application/json",
                                session.accessToken)),
            "400 BAD_REQUEST");
  EXPECT_EQ(server
                .sendJson("PUT", brainPath("/file"),
                          {{"deviceId", session.deviceId}, {"path", "c.md"}}, session.accessToken)
                .status,
            400);
  EXPECT_EQ(server.get(brainPath("/changes"), session.accessToken).status, 400);

  // A revoked device is refused everywhere, before anything else is looked at.
  server.control("POST", "/devices/" + session.deviceId + "/revoke");
  EXPECT_EQ(outcome(putText("c.md", "c")), "403 FORBIDDEN");
  EXPECT_EQ(server.get("/api/sync/devices", session.accessToken).json["devices"].size(), 0u);
}

TEST_F(SyncRoutes, ReadOnlyFoldersRefuseChangesInsideAndAround) {
  controlWrite("shared/policy.md", "rules");
  ASSERT_EQ(putText("own.md", "mine").status, 200);
  server.control("POST", "/brains/" + brainId + "/read-only", {{"path", "shared"}});

  auto expectSubtree = [](const Reply& reply, const char* what) {
    EXPECT_EQ(outcome(reply), "403 FORBIDDEN_SUBTREE") << what;
  };
  expectSubtree(putText("shared/policy.md", "mine now"), "overwrite");
  expectSubtree(putText("shared/new.md", "x"), "create inside");
  expectSubtree(move("shared/policy.md", "policy.md"), "move out");
  expectSubtree(move("own.md", "shared/own.md"), "move in");
  expectSubtree(move("shared", "elsewhere"), "move the folder");
  expectSubtree(remove("shared/policy.md"), "delete inside");
  expectSubtree(remove("shared"), "delete the folder");

  EXPECT_EQ(read("shared/policy.md").json["content"], "rules");
  EXPECT_EQ(putText("shared-notes.md", "next door").status, 200);  // a sibling, not inside
  controlWrite("shared/policy.md", "updated by an admin");
  EXPECT_EQ(read("shared/policy.md").json["content"], "updated by an admin");

  server.control("POST", "/brains/" + brainId + "/read-only",
                 {{"path", "shared"}, {"readOnly", false}});
  EXPECT_EQ(putText("shared/policy.md", "mine now").status, 200);
}

TEST_F(SyncRoutes, MovesCarrySubtreesAndDeletesRemoveThem) {
  ASSERT_EQ(putText("p/one.md", "1").status, 200);
  ASSERT_EQ(putText("p/q/two.md", "2").status, 200);
  ASSERT_EQ(putText("pp.md", "not inside p").status, 200);
  json before = server.control("GET", "/brains/" + brainId + "/tree");

  Reply moved = move("p", "x/y/p2");
  ASSERT_EQ(moved.status, 200) << moved.body;
  EXPECT_EQ(moved.json["node"]["path"], "x/y/p2");
  EXPECT_EQ(move("x", "x/inner").status, 400);

  json after = server.control("GET", "/brains/" + brainId + "/tree");
  std::map<std::string, std::string> idByPath;
  for (const auto& node : after["nodes"]) idByPath[node["path"]] = node["nodeId"];
  for (const auto& node : before["nodes"]) {
    std::string path = node["path"];
    if (path == "pp.md") {
      EXPECT_EQ(idByPath[path], node["nodeId"]);
    } else {
      std::string moved = "x/y/p2" + path.substr(1);
      ASSERT_TRUE(idByPath.count(moved)) << moved;
      EXPECT_EQ(idByPath[moved], node["nodeId"]) << "node ids survive a move";
    }
  }
  EXPECT_EQ(read("x/y/p2/q/two.md").json["content"], "2");

  Reply deleted = remove("x/y");
  ASSERT_EQ(deleted.status, 200);
  EXPECT_EQ(deleted.json["deleted"], true);
  EXPECT_TRUE(deleted.json["cursor"].is_string());
  std::set<std::string> left;
  json tree = server.control("GET", "/brains/" + brainId + "/tree");
  for (const auto& node : tree["nodes"]) left.insert(node["path"]);
  EXPECT_EQ(left, (std::set<std::string>{"pp.md", "x"}));
}

TEST_F(SyncRoutes, BlobsOverTheLimitAreRefused) {
  EXPECT_EQ(outcome(server.send("POST", brainPath("/blobs?deviceId=" + session.deviceId),
                                std::string(104857601, 'z'), "application/octet-stream",
                                session.accessToken)),
            "413 PAYLOAD_TOO_LARGE");
}

}  // namespace
}  // namespace devserver::testing
