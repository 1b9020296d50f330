// The sync engine against the reference service: a brain's snapshot and the
// change-feed pages that follow it, made by others through the control
// interface, applied to a real store by the engine and compared with the
// server's own tree; and content sent by the engine and read back.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "synckit/base/crypto.h"
#include "synckit/engine/content_uploader.h"
#include "synckit/engine/reconciler.h"
#include "synckit/engine/reset_planner.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/platform/ignore_list.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/devserver_session.h"

namespace halvark::e2e {
namespace {

using nlohmann::json;
using synckit::ChangesResponse;
using synckit::DownloadedFile;

// What both sides say about one path.
struct TreeNode {
  bool isDirectory = false;
  std::string kind;
  std::string nodeId;
  bool operator==(const TreeNode&) const = default;
};

bool madeLocally(const std::string& nodeId) {
  return nodeId.starts_with("dir:") || nodeId.starts_with("local:");
}

class EngineAgainstDevServerTest : public ::testing::Test, protected DevServerSession {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(signIn());
    brain_ = demoBrain();
    auto id = synckit::Uuid::parse(brain_.id);
    ASSERT_TRUE(id) << brain_.id;
    brainId_ = *id;
    store_->upsertBrain({brainId_, brain_.slug, brain_.name, std::nullopt});
  }

  // Fetches from the stored cursor, expecting a snapshot, and applies it as
  // the sync loop does: inside one store transaction.
  synckit::ResetPlan applyReset() {
    auto answer = api_.fetchChanges(brainId_, store_->cursor(brainId_), deviceId_);
    auto* reset = answer.as<ChangesResponse::Reset>();
    EXPECT_TRUE(reset) << "expected a snapshot";
    if (!reset) return {};
    return store_->writeTransaction([&] {
      return synckit::ResetPlanner::plan(*store_, brainId_, reset->cursor, reset->snapshot);
    });
  }

  // Applies incremental pages until the feed has nothing more; returns every
  // download the pages asked for.
  std::vector<synckit::DownloadRequest> applyFeed() {
    std::vector<synckit::DownloadRequest> downloads;
    for (int page = 0; page < 100; ++page) {
      auto answer = api_.fetchChanges(brainId_, store_->cursor(brainId_), deviceId_);
      auto* incremental = answer.as<ChangesResponse::Incremental>();
      EXPECT_TRUE(incremental) << "expected an incremental page";
      if (!incremental) break;
      auto result =
          synckit::Reconciler::reconcile(incremental->entries, brainId_, incremental->cursor,
                                         *store_, [](const auto&, const auto&, const auto&) {
                                           return synckit::ConflictResolution::remoteWins;
                                         });
      downloads.insert(downloads.end(), result.downloads.begin(), result.downloads.end());
      if (incremental->entries.empty()) break;
    }
    return downloads;
  }

  std::map<std::string, TreeNode> serverTree() {
    std::map<std::string, TreeNode> tree;
    json answer = control("GET", "/brains/" + brain_.id + "/tree");
    for (const json& node : answer.at("nodes")) {
      std::string path = node.at("path");
      if (synckit::IgnoreList::isIgnored(path)) continue;
      tree[path] = {node.at("isDirectory").get<bool>(), node.at("kind").get<std::string>(),
                    node.at("nodeId").get<std::string>()};
    }
    return tree;
  }

  // The store's tree, with the server's id standing in for ids the engine
  // made itself, so that the two compare node for node. Counts the ids that
  // were compared as they are.
  std::map<std::string, TreeNode> storeTree(const std::map<std::string, TreeNode>& server,
                                            int* serverIds = nullptr) {
    std::map<std::string, TreeNode> tree;
    for (const synckit::NodeRecord& node : store_->nodes(brainId_)) {
      std::string id = node.nodeId;
      auto there = server.find(node.path);
      if (madeLocally(id) && there != server.end()) {
        id = there->second.nodeId;
      } else if (serverIds) {
        ++*serverIds;
      }
      tree[node.path] = {node.isDirectory, std::string(synckit::toString(node.kind)), id};
    }
    return tree;
  }

  void expectSameTree(bool allIdsFromServer) {
    auto server = serverTree();
    int serverIds = 0;
    auto local = storeTree(server, &serverIds);
    EXPECT_EQ(local, server);
    if (allIdsFromServer) {
      EXPECT_EQ(serverIds, static_cast<int>(server.size()));
    }
  }

  json as(const std::string& kind, const std::optional<std::string>& device = std::nullopt) {
    json who = {{"kind", kind}, {"memberId", "demo"}};
    if (kind == "agent") who["harness"] = "e2e";
    if (device) who["deviceId"] = *device;
    return who;
  }

  void change(const std::string& action, json body) {
    control("POST", "/brains/" + brain_.id + "/" + action, body);
  }

  synckit::testing::TemporaryDirectory directory_;
  std::unique_ptr<synckit::MetadataStore> store_ =
      synckit::MetadataStore::open(directory_ / "sync.sqlite");
  synckit::Brain brain_;
  synckit::Uuid brainId_;
};

TEST_F(EngineAgainstDevServerTest, SnapshotAndFeedPagesLeaveTheStoreMatchingTheServer) {
  // The first request has no cursor: the seeded brain as a snapshot.
  synckit::ResetPlan first = applyReset();
  EXPECT_TRUE(first.deletedIdentifiers.empty());
  std::size_t files = 0;
  for (const auto& [path, node] : serverTree()) files += node.isDirectory ? 0 : 1;
  EXPECT_EQ(first.downloads.size(), files);
  ASSERT_NO_FATAL_FAILURE(expectSameTree(true));

  // Others change the brain: an agent, and this member on another device.
  std::string other = api_.registerDevice("other-machine", "linux").id;
  synckit::Bytes blob(2048);
  for (std::size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<std::uint8_t>(i * 7);
  change("write", {{"path", "e2e/first.md"}, {"content", "one"}, {"as", as("agent")}});
  change("mkdir", {{"path", "e2e/deep/er/folder"}, {"as", as("member", other)}});
  change(
      "write",
      {{"path", "e2e/deep/er/folder/leaf.md"}, {"content", "leaf"}, {"as", as("member", other)}});
  change("write", {{"path", "e2e/deep/data.bin"},
                   {"base64", synckit::base64Encode(blob)},
                   {"as", as("agent")}});
  change("move", {{"fromPath", "e2e/deep"}, {"toPath", "e2e/moved"}, {"as", as("agent")}});
  change("move", {{"fromPath", "notes"}, {"toPath", "e2e/notes"}, {"as", as("member", other)}});
  change("delete", {{"path", "projects"}, {"as", as("agent")}});
  change("delete", {{"path", "Welcome.md"}, {"as", as("member", other)}});
  change("write", {{"path", "e2e/first.md"}, {"content", "two"}, {"as", as("agent")}});

  auto downloads = applyFeed();
  ASSERT_NO_FATAL_FAILURE(expectSameTree(false));
  // Nodes that came with the snapshot keep the server's ids through moves.
  auto moved = store_->nodeAtPath(brainId_, "e2e/notes/2025/march.md");
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->nodeId, serverTree().at("e2e/notes/2025/march.md").nodeId);

  // The blob arrives as a download request that reads back byte for byte.
  auto data = std::find_if(downloads.begin(), downloads.end(),
                           [](const auto& d) { return d.path == "e2e/moved/data.bin"; });
  ASSERT_NE(data, downloads.end());
  EXPECT_EQ(data->kind, synckit::NodeKind::blob);
  auto read = api_.readFile(brainId_, data->path, data->cursor.value_or(""));
  ASSERT_TRUE(read.as<DownloadedFile::Blob>());
  EXPECT_EQ(read.as<DownloadedFile::Blob>()->data, blob);

  // A reset after all that takes the server's ids for the folders and files
  // the feed made here, and removes nothing the server still has.
  control("POST", "/brains/" + brain_.id + "/invalidate-cursors");
  synckit::ResetPlan second = applyReset();
  ASSERT_NO_FATAL_FAILURE(expectSameTree(true));
  for (const auto& identifier : second.deletedIdentifiers) {
    const auto& node = std::get<synckit::SyncItemIdentifier::Node>(identifier.value);
    EXPECT_TRUE(madeLocally(node.nodeId)) << node.nodeId;
  }

  // And a third finds nothing to do.
  control("POST", "/brains/" + brain_.id + "/invalidate-cursors");
  auto anchor = store_->currentAnchor();
  EXPECT_TRUE(applyReset().isEmpty());
  EXPECT_EQ(store_->currentAnchor(), anchor);
}

TEST_F(EngineAgainstDevServerTest, UploadedTextAndBlobReadBackByteForByte) {
  const std::string text =
      "# Caf\xC3\xA9\n\nr\xC3\xA9sum\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x8C\xB1\r\n";
  synckit::Bytes blob(300 * 1024);
  std::uint32_t state = 12345;
  for (auto& byte : blob) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  blob[0] = 0;  // binary without doubt

  auto textPlan = synckit::UploadPlanner::planContentUpload(synckit::toBytes(text));
  auto blobPlan = synckit::UploadPlanner::planContentUpload(blob);
  ASSERT_EQ(textPlan.kind(), synckit::ContentUploadPlan::Kind::text);
  ASSERT_EQ(blobPlan.kind(), synckit::ContentUploadPlan::Kind::blob);

  auto sentText = synckit::ContentUploader::send(textPlan, brainId_, "e2e/up/caf\xC3\xA9.md",
                                                 deviceId_, api_, tokens_);
  auto sentBlob = synckit::ContentUploader::send(blobPlan, brainId_, "e2e/up/data.bin", deviceId_,
                                                 api_, tokens_);
  EXPECT_EQ(sentText.kind, synckit::NodeKind::text);
  EXPECT_EQ(sentText.result.node.path, "e2e/up/caf\xC3\xA9.md");
  EXPECT_EQ(sentBlob.kind, synckit::NodeKind::blob);
  EXPECT_EQ(sentBlob.blobHash, synckit::hexLower(synckit::sha256(blob)));
  EXPECT_EQ(sentBlob.blobSize, static_cast<std::int64_t>(blob.size()));

  auto readText = api_.readFile(brainId_, sentText.result.node.path, sentText.result.cursor);
  ASSERT_TRUE(readText.as<DownloadedFile::Text>());
  EXPECT_EQ(readText.as<DownloadedFile::Text>()->content, text);
  auto readBlob = api_.readFile(brainId_, sentBlob.result.node.path, sentBlob.result.cursor);
  ASSERT_TRUE(readBlob.as<DownloadedFile::Blob>());
  EXPECT_TRUE(readBlob.as<DownloadedFile::Blob>()->data == blob);

  // The server's tree agrees on what it holds and under which ids.
  json tree = control("GET", "/brains/" + brain_.id + "/tree");
  std::map<std::string, json> byPath;
  for (const json& node : tree.at("nodes")) byPath[node.at("path")] = node;
  EXPECT_EQ(byPath["e2e/up/caf\xC3\xA9.md"]["content"], text);
  EXPECT_EQ(byPath["e2e/up/caf\xC3\xA9.md"]["nodeId"], sentText.result.node.nodeId);
  EXPECT_EQ(byPath["e2e/up/data.bin"]["base64"], synckit::base64Encode(blob));
  EXPECT_EQ(byPath["e2e/up/data.bin"]["nodeId"], sentBlob.result.node.nodeId);
}

}  // namespace
}  // namespace halvark::e2e
