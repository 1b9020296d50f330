// halvark-provider as a real process between the reference service and the
// disk: the scheduler of this test process brings the server's brains into
// the store, and the provider brings the store into the mirror folder. The
// mirror is compared byte for byte with what the server holds, remote
// changes and deletes are followed, a provider killed mid-download
// converges after a restart, and hostile paths write nothing outside.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <unordered_set>

#include "synckit/base/crypto.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/provider_progress.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/provider_fixture.h"

namespace halvark::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using synckit::Uuid;
using synckit::testing::entryNames;
using synckit::testing::eventually;

constexpr std::string_view stagingName = ".halvark-staging";

std::string randomBytes(std::size_t size) {
  const synckit::Bytes bytes = synckit::secureRandomBytes(size);
  return std::string(bytes.begin(), bytes.end());
}

using ProviderAgainstDevServerTest = ProviderFixture;

TEST_F(ProviderAgainstDevServerTest, MirrorsTheBrainAndFollowsRemoteChanges) {
  serverWrite(demo_, "deep/er/than/that/leaf.md", "at the bottom");
  serverWrite(demo_, "Ünïcødé/日本語 メモ.md", "ノート");
  serverWrite(demo_, "Ünïcødé/ça va?.txt", "oui");
  serverWriteBlob(demo_, "media/big.bin", randomBytes(20 * 1024 * 1024));
  serverWrite(demo_, "empty/empty.md", "");
  serverWriteBlob(demo_, "empty/empty.bin", "");
  ASSERT_NO_FATAL_FAILURE(syncStore());

  // The first run from an empty mirror and index.
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  EXPECT_EQ(mirrorFolders(), std::set<std::string>{"Demo"});
  Tree expected = serverTree(demo_);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", expected, std::chrono::seconds(1)));
  const auto progress = synckit::ProviderProgressFile::read(
      synckit::ProviderPaths::progressURL(synckit::AppGroup::containerURL()));
  ASSERT_TRUE(progress.has_value());
  EXPECT_TRUE(progress->idle);
  EXPECT_EQ(progress->filesRemaining, 0);
  EXPECT_EQ(progress->bytesRemaining, 0);
  EXPECT_GE(store_->ownWriteCount(demo_, "deep/er/than/that/leaf.md"), 1);
  const std::uint64_t marchInode = inodeOf(mirror_ / "Demo/notes/2025/march.md");
  const std::uint64_t bigInode = inodeOf(mirror_ / "Demo/media/big.bin");
  ASSERT_NE(marchInode, 0u);

  // From now on the application's file-provider manager runs the provider,
  // and the scheduler's working-set signal wakes it. Every access token
  // expires first, so both processes renew the one shared session, and
  // neither may end it.
  ASSERT_NO_THROW(domainController_->activate());
  EXPECT_GE(control("POST", "/tokens/expire").at("expired").get<int>(), 1);
  serverWrite(demo_, "inbox/new.md", "created elsewhere");
  serverWrite(demo_, "Welcome.md", "rewritten elsewhere");
  serverCall(demo_, "move", {{"fromPath", "notes"}, {"toPath", "journal/notes"}});
  serverCall(demo_, "delete", {{"path", "projects/halvark/todo.txt"}});
  ASSERT_NO_FATAL_FAILURE(syncStore());
  expected = serverTree(demo_);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", expected));
  EXPECT_TRUE(tokenFile_->load().has_value());

  // A move renames: the moved file is the same file, not a new download;
  // content nobody changed stays in place.
  EXPECT_EQ(inodeOf(mirror_ / "Demo/journal/notes/2025/march.md"), marchInode);
  EXPECT_EQ(inodeOf(mirror_ / "Demo/media/big.bin"), bigInode);
  // The deleted file went to the desktop trash with where it came from.
  EXPECT_EQ(readAll(trash() / "files/todo.txt"),
            "write the release notes\ntry a conflict on purpose\n");
  const std::string info = readAll(trash() / "info/todo.txt.trashinfo");
  EXPECT_NE(info.find("Path=" + (mirror_ / "Demo/projects/halvark/todo.txt").string()),
            std::string::npos)
      << info;
  EXPECT_NE(info.find("DeletionDate="), std::string::npos) << info;

  // The application lists exactly the brain's files as materialized.
  std::unordered_set<synckit::SyncItemIdentifier> files;
  for (const synckit::NodeRecord& node : store_->nodes(demo_)) {
    if (!node.isDirectory) files.insert(synckit::SyncItemIdentifier::node(demo_, node.nodeId));
  }
  EXPECT_EQ(domainController_->materializedIdentifiers(), files);

  // Removing the domain stops the provider and leaves the mirror as it is.
  domainController_->deactivate();
  EXPECT_FALSE(synckit::SyncSignal::post(synckit::ProviderPaths::workingSetSignalName()));
  EXPECT_EQ(diskTree(mirror_ / "Demo"), expected);
  EXPECT_FALSE(fs::exists(mirror_ / stagingName) && !fs::is_empty(mirror_ / stagingName));
}

TEST_F(ProviderAgainstDevServerTest, NamesBrainFoldersStablyAndTrashesARevokedBrain) {
  const Uuid first = createBrain("Projects", "projects-a");
  const Uuid second = createBrain("Projects", "projects-b");
  const Uuid slashed = createBrain("a/b", "slashed");
  serverWrite(first, "a.md", "in the first");
  serverWrite(second, "b.md", "in the second");
  serverWrite(slashed, "c.md", "behind a slash");
  ASSERT_NO_FATAL_FAILURE(syncStore());

  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  const std::set<std::string> folders{"Demo", "Projects (projects-a)", "Projects (projects-b)",
                                      "slashed"};
  EXPECT_EQ(mirrorFolders(), folders);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Projects (projects-a)", serverTree(first)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Projects (projects-b)", serverTree(second)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("slashed", serverTree(slashed)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", serverTree(demo_)));

  // Another run keeps every folder as it is.
  const std::uint64_t secondInode = inodeOf(mirror_ / "Projects (projects-b)");
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  EXPECT_EQ(mirrorFolders(), folders);
  EXPECT_EQ(inodeOf(mirror_ / "Projects (projects-b)"), secondInode);

  // The first brain is revoked: its folder goes to the trash, and the other
  // "Projects" no longer collides, so its folder takes the plain name.
  control("POST", "/brains/" + first.toLowerString() + "/revoke", {{"member", "demo"}});
  ASSERT_NO_FATAL_FAILURE(syncStore());
  ASSERT_FALSE(store_->brain(first).has_value());
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  EXPECT_EQ(mirrorFolders(), (std::set<std::string>{"Demo", "Projects", "slashed"}));
  EXPECT_EQ(inodeOf(mirror_ / "Projects"), secondInode);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Projects", serverTree(second)));
  EXPECT_EQ(readAll(trash() / "files/Projects (projects-a)/a.md"), "in the first");
  EXPECT_TRUE(fs::exists(trash() / "info/Projects (projects-a).trashinfo"));
}

TEST_F(ProviderAgainstDevServerTest, ConvergesAfterBeingKilledDuringDownloads) {
  const Uuid big = createBrain("Big", "big");
  serverWriteBlob(big, "big.bin", randomBytes(20 * 1024 * 1024));
  for (int i = 0; i < 24; ++i) {
    serverWrite(big, "small/" + std::to_string(i) + ".md", "small file " + std::to_string(i));
  }
  ASSERT_NO_FATAL_FAILURE(syncStore());
  const Tree expected = serverTree(big);

  // Every download of the brain waits a while on the server, so that the
  // kill finds some of them on the wire and some finished.
  const std::string filePath = "/brains/" + big.toLowerString() + "/file";
  constexpr int armed = 1000;
  control("POST", "/faults",
          {{"path", filePath}, {"method", "GET"}, {"delayMs", 300}, {"count", armed}});
  auto remaining = [&] {
    const json faults = control("GET", "/faults").at("faults");
    return faults.empty() ? 0 : faults.front().at("count").get<int>();
  };
  auto provider = startProvider();
  ASSERT_TRUE(eventually([&] { return remaining() <= armed - 12; }, std::chrono::seconds(30),
                         std::chrono::milliseconds(10)));
  EXPECT_EQ(provider->stop(SIGKILL), 128 + SIGKILL);

  // Whatever reached a final path is complete.
  const Tree partial = diskTree(mirror_ / "Big");
  EXPECT_LT(partial.size(), expected.size());
  for (const auto& [path, entry] : partial) {
    auto want = expected.find(path);
    ASSERT_NE(want, expected.end()) << path;
    EXPECT_EQ(entry, want->second) << path;
  }

  control("DELETE", "/faults");
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Big", expected, std::chrono::seconds(1)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", serverTree(demo_), std::chrono::seconds(1)));
  EXPECT_FALSE(fs::exists(mirror_ / stagingName) && !fs::is_empty(mirror_ / stagingName));
}

TEST_F(ProviderAgainstDevServerTest, WritesNothingOutsideTheMirror) {
  // A link where the brain's "notes" folder belongs, pointing outside.
  const fs::path target = root_ / "target";
  fs::create_directories(mirror_ / "Demo");
  fs::create_directory_symlink(target, mirror_ / "Demo/notes");
  ASSERT_NO_FATAL_FAILURE(syncStore());
  // Nodes whose paths climb out of the brain's folder, as a damaged or
  // hostile store might hold them.
  int hostile = 0;
  for (const char* path : {"a/../../../escape", "../outside.md", "notes/../../../up.md"}) {
    synckit::NodeRecord node;
    node.brainId = demo_;
    node.nodeId = "hostile-" + std::to_string(++hostile);
    node.path = path;
    node.contentVersion = 1;
    store_->upsertNode(node);
    store_->recordChange(synckit::SyncItemIdentifier::node(demo_, node.nodeId), false);
  }

  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  // A later remote file below the linked folder is refused too.
  auto provider = startProvider();
  serverWrite(demo_, "notes/later.md", "must not land in the target");
  serverWrite(demo_, "later.md", "lands in the mirror");
  ASSERT_NO_FATAL_FAILURE(syncStore());
  ASSERT_TRUE(
      eventually([&] { return fs::exists(mirror_ / "Demo/later.md"); }, std::chrono::seconds(30)));
  EXPECT_EQ(provider->stop(SIGTERM), 0);

  EXPECT_EQ(entryNames(box_), std::set<std::string>{"mirror"});
  EXPECT_EQ(entryNames(root_ / "target"), std::set<std::string>{});
  EXPECT_TRUE(fs::is_symlink(fs::symlink_status(mirror_ / "Demo/notes")));
  EXPECT_EQ(mirrorFolders(), std::set<std::string>{"Demo"});
  // Everything not behind the link is mirrored as usual.
  Tree expected = serverTree(demo_);
  std::erase_if(expected, [](const auto& item) { return item.first.starts_with("notes"); });
  expected["notes"] = {'l', ""};
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", expected, std::chrono::seconds(1)));

  // Each item left out reaches the application's recent sync errors, once.
  const auto reported = [&](const std::string& text) {
    const std::vector<std::string> errors = syncErrors();
    return std::count(errors.begin(), errors.end(), text);
  };
  const std::string invalid = ": Its path is not a valid path in a brain.";
  EXPECT_TRUE(eventually(
      [&] { return reported("Could not show \u201ca/../../../escape\u201d" + invalid) == 1; },
      std::chrono::seconds(10)));
  EXPECT_EQ(reported("Could not show \u201c../outside.md\u201d" + invalid), 1);
  const std::vector<std::string> errors = syncErrors();
  EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](const std::string& text) {
    return text.starts_with("Could not show \u201cnotes/later.md\u201d");
  })) << ::testing::PrintToString(errors);
}

}  // namespace
}  // namespace halvark::e2e
