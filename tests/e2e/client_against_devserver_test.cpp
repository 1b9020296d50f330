// The client library against the reference service, both as they ship: the
// OAuth client, token manager and API client on the libcurl transport, talking
// to a halvark-devserver process on loopback. The two sides share no code, so
// these tests are where a disagreement about the wire contract shows.

#include <gtest/gtest.h>

#include <algorithm>

#include "synckit/auth/oauth_error.h"
#include "synckit/auth/token_manager_error.h"
#include "synckit/base/crypto.h"
#include "tests/e2e/devserver_session.h"

namespace halvark::e2e {
namespace {

using nlohmann::json;
using synckit::ChangesResponse;
using synckit::DownloadedFile;
using synckit::Op;
using synckit::SyncAPIError;

class ClientAgainstDevServerTest : public ::testing::Test, protected DevServerSession {};

TEST_F(ClientAgainstDevServerTest, SignsInWithPKCEAndRegistersTheDevice) {
  ASSERT_NO_FATAL_FAILURE(signIn());
  EXPECT_EQ(tokens_.state(), synckit::SessionState::signedIn);
  EXPECT_TRUE(metadata_->authorizationEndpoint.starts_with(server_.baseURL()));
  auto devices = api_.listDevices();
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].id, deviceId_);
  EXPECT_EQ(devices[0].name, "e2e-machine");
  EXPECT_EQ(devices[0].platform, "linux");
}

TEST_F(ClientAgainstDevServerTest, FeedFilesMovesAndDeletesRoundTrip) {
  ASSERT_NO_FATAL_FAILURE(signIn());
  auto brain = demoBrain();
  auto brainId = synckit::Uuid::parse(brain.id);
  ASSERT_TRUE(brainId) << brain.id;

  // A first request has no cursor: the whole seeded brain as a snapshot.
  auto first = api_.fetchChanges(*brainId, std::nullopt, deviceId_);
  auto* reset = first.as<ChangesResponse::Reset>();
  ASSERT_TRUE(reset);
  ASSERT_TRUE(first.cursor());
  EXPECT_TRUE(std::any_of(reset->snapshot.begin(), reset->snapshot.end(),
                          [](const auto& n) { return n.isDirectory; }));
  auto blobNode = std::find_if(reset->snapshot.begin(), reset->snapshot.end(),
                               [](const auto& n) { return n.kind == synckit::NodeKind::blob; });
  ASSERT_NE(blobNode, reset->snapshot.end());
  ASSERT_TRUE(blobNode->blobHash && blobNode->blobSize);
  auto seededBlob = api_.readFile(*brainId, blobNode->path, blobNode->updatedAt.toString());
  ASSERT_TRUE(seededBlob.as<DownloadedFile::Blob>());
  EXPECT_EQ(synckit::hexLower(synckit::sha256(seededBlob.as<DownloadedFile::Blob>()->data)),
            *blobNode->blobHash);

  // Our own writes come back as results but stay out of our feed.
  std::string text = "Caf\xC3\xA9 notes \xE2\x80\x94 100% sure?";
  auto written = api_.putText(*brainId, deviceId_, "e2e/caf\xC3\xA9 & co?.md", std::nullopt, text);
  EXPECT_EQ(written.node.path, "e2e/caf\xC3\xA9 & co?.md");
  auto read = api_.readFile(*brainId, written.node.path, written.cursor);
  ASSERT_TRUE(read.as<DownloadedFile::Text>());
  EXPECT_EQ(read.as<DownloadedFile::Text>()->content, text);

  synckit::Bytes payload{0x00, 0xFF, 0x10, 0x80, 0x7F};
  auto receipt = api_.uploadBlob(*brainId, deviceId_, payload);
  EXPECT_EQ(receipt.hash, synckit::hexLower(synckit::sha256(payload)));
  EXPECT_EQ(receipt.size, 5);
  auto blobWrite =
      api_.putBlobFile(*brainId, deviceId_, "e2e/data.bin", "Data", receipt.hash, receipt.size);
  auto readBlob = api_.readFile(*brainId, blobWrite.node.path, blobWrite.cursor);
  ASSERT_TRUE(readBlob.as<DownloadedFile::Blob>());
  EXPECT_EQ(readBlob.as<DownloadedFile::Blob>()->data, payload);

  auto own = api_.fetchChanges(*brainId, first.cursor(), deviceId_);
  auto* ownPage = own.as<ChangesResponse::Incremental>();
  ASSERT_TRUE(ownPage);
  EXPECT_TRUE(ownPage->entries.empty());
  ASSERT_TRUE(own.cursor());
  EXPECT_NE(own.cursor(), first.cursor());

  // Somebody else's change arrives as an entry with its author and ops.
  control("POST", "/brains/" + brain.id + "/write",
          {{"path", "e2e/from-agent.md"},
           {"content", "hello"},
           {"as", {{"kind", "agent"}, {"memberId", "demo"}, {"harness", "e2e"}}}});
  auto theirs = api_.fetchChanges(*brainId, own.cursor(), deviceId_);
  auto* theirPage = theirs.as<ChangesResponse::Incremental>();
  ASSERT_TRUE(theirPage);
  ASSERT_EQ(theirPage->entries.size(), 1u);
  EXPECT_EQ(theirPage->entries[0].author.kind, synckit::AuthorKind::agent);
  EXPECT_EQ(theirPage->entries[0].author.harness, "e2e");
  ASSERT_FALSE(theirPage->entries[0].ops.empty());
  EXPECT_EQ(theirPage->entries[0].ops.back().path(), "e2e/from-agent.md");

  // Moves, conflicts, deletes and the refusals the engine relies on.
  auto moved = api_.move(*brainId, deviceId_, "e2e/data.bin", "e2e/renamed.bin");
  EXPECT_EQ(moved.node.path, "e2e/renamed.bin");
  EXPECT_EQ(moved.node.nodeId, blobWrite.node.nodeId);
  try {
    api_.move(*brainId, deviceId_, "e2e/renamed.bin", "e2e/from-agent.md");
    ADD_FAILURE() << "a move onto an existing path must fail";
  } catch (const SyncAPIError& error) {
    EXPECT_EQ(error.status(), 409);
    EXPECT_TRUE(error.isConflict());
  }
  EXPECT_TRUE(api_.deleteFile(*brainId, deviceId_, "e2e/renamed.bin").deleted);
  try {
    api_.readFile(*brainId, "e2e/renamed.bin", "");
    ADD_FAILURE() << "a deleted file must not be readable";
  } catch (const SyncAPIError& error) {
    EXPECT_TRUE(error.isNotFound()) << error.description();
  }

  control("POST", "/brains/" + brain.id + "/read-only", {{"path", "e2e"}});
  try {
    api_.putText(*brainId, deviceId_, "e2e/blocked.md", std::nullopt, "no");
    ADD_FAILURE() << "a write inside a read-only folder must fail";
  } catch (const SyncAPIError& error) {
    EXPECT_EQ(error.status(), 403);
    EXPECT_TRUE(error.isForbiddenSubtree());
  }

  // An invalidated cursor makes the next request a reset again.
  control("POST", "/brains/" + brain.id + "/invalidate-cursors");
  auto again = api_.fetchChanges(*brainId, theirs.cursor(), deviceId_);
  EXPECT_EQ(again.kind(), ChangesResponse::Kind::reset);
}

TEST_F(ClientAgainstDevServerTest, ExpiredAccessTokenIsRefreshedAndARevokedSessionSignsOut) {
  ASSERT_NO_FATAL_FAILURE(signIn());
  auto before = tokenStore_.load();
  ASSERT_TRUE(before);

  control("POST", "/tokens/expire");
  auto brains = tokens_.withAuthRetry([&] { return api_.listBrains(); });
  EXPECT_FALSE(brains.empty());
  auto after = tokenStore_.load();
  ASSERT_TRUE(after);
  EXPECT_NE(after->accessToken, before->accessToken);
  EXPECT_NE(after->refreshToken, before->refreshToken);  // rotated
  EXPECT_EQ(tokens_.state(), synckit::SessionState::signedIn);

  // The used refresh token is spent: the server answers invalid_grant.
  try {
    oauth_.refresh(*metadata_, before->refreshToken, clientId_);
    ADD_FAILURE() << "a used refresh token must be refused";
  } catch (const synckit::OAuthError& error) {
    EXPECT_TRUE(error.isInvalidGrant()) << error.description();
  }

  // With access and refresh tokens revoked the session ends.
  control("POST", "/tokens/expire", {{"refresh", true}});
  EXPECT_THROW(tokens_.withAuthRetry([&] { return api_.listBrains(); }),
               synckit::TokenManagerError);
  EXPECT_EQ(tokens_.state(), synckit::SessionState::signedOut);
  EXPECT_FALSE(tokenStore_.load());
}

}  // namespace
}  // namespace halvark::e2e
