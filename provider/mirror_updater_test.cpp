#include "provider/mirror_updater.h"

#include <gtest/gtest.h>

#include <atomic>

#include "provider/local_journal.h"
#include "provider/mirror_test_world.h"
#include "synckit/auth/brain_grants.h"
#include "synckit/base/crash_point.h"
#include "synckit/platform/provider_progress.h"

namespace halvark::provider {
namespace {

namespace fs = std::filesystem;
using synckit::NodeKind;
using synckit::Uuid;
using synckit::testing::entryNames;
using testing::contentOf;
using testing::kFolder;
using testing::Tree;
using testing::treeOf;
using testing::writeFile;
using World = testing::MirrorTestWorld;

struct SimulatedCrash {};

class MirrorUpdaterTest : public ::testing::Test {
 protected:
  World world;
};

TEST_F(MirrorUpdaterTest, MaterialisesEveryBrainAndRetriesABlobWhoseHashDoesNotMatch) {
  const Uuid notes = world.addBrain("Notes", "notes");
  const Uuid twinA = world.addBrain("Twin", "twin-a");
  const Uuid twinB = world.addBrain("Twin", "twin-b");
  world.putFile(notes, "a/b/c/deep.md", "deep down");
  world.putFile(notes, "\u00dcn\u00efc\u00f8d\u00e9/\u65e5\u672c\u8a9e.md",
                "\u3053\u3093\u306b\u3061\u306f");
  world.putFile(notes, "empty.txt", "");
  world.putFile(notes, "pic.bin", std::string("\x89PNG\0\x01", 6), NodeKind::blob);
  world.putFile(notes, "bad.bin", "tampered", NodeKind::blob, "the real bytes");
  world.putFile(twinA, "a.md", "first twin");
  world.putFile(twinB, "b.md", "second twin");

  const auto first = world.updater->update();
  EXPECT_EQ(first.written, 6);
  EXPECT_EQ(first.failed, 1);
  const Tree expected{
      {"Notes", kFolder},
      {"Notes/a", kFolder},
      {"Notes/a/b", kFolder},
      {"Notes/a/b/c", kFolder},
      {"Notes/a/b/c/deep.md", "deep down"},
      {"Notes/\u00dcn\u00efc\u00f8d\u00e9", kFolder},
      {"Notes/\u00dcn\u00efc\u00f8d\u00e9/\u65e5\u672c\u8a9e.md", "\u3053\u3093\u306b\u3061\u306f"},
      {"Notes/empty.txt", ""},
      {"Notes/pic.bin", std::string("\x89PNG\0\x01", 6)},
      {"Twin (twin-a)", kFolder},
      {"Twin (twin-a)/a.md", "first twin"},
      {"Twin (twin-b)", kFolder},
      {"Twin (twin-b)/b.md", "second twin"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_TRUE(world.staged().empty());
  const auto badNode = world.store->nodeAtPath(notes, "bad.bin");
  EXPECT_EQ(world.index->retries(),
            (std::vector<std::pair<Uuid, std::string>>{{notes, badNode->nodeId}}));
  world.expectIndexMatchesDisk();
  EXPECT_EQ(world.store->ownWriteCount(notes, "a/b/c/deep.md"), 1);
  EXPECT_EQ(world.store->ownWriteCount(notes, "a/b"), 1);
  EXPECT_EQ(world.store->ownWriteCount(notes, ""), 1);
  const auto progress = synckit::ProviderProgressFile::read(world.progressFile());
  ASSERT_TRUE(progress);
  EXPECT_TRUE(progress->idle);
  EXPECT_EQ(progress->filesRemaining, 0);

  // The server mends the blob: the retry fetches that one file and nothing else.
  world.setServed(notes, "bad.bin", "the real bytes", true);
  const std::size_t requests = world.transport.requestCount();
  const auto second = world.updater->update();
  EXPECT_EQ(second.written, 1);
  EXPECT_EQ(second.failed, 0);
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
  EXPECT_EQ(contentOf(world.mirrorPath / "Notes/bad.bin"), "the real bytes");
  EXPECT_TRUE(world.index->retries().empty());
  EXPECT_EQ(world.updater->update(), MirrorUpdater::Summary{});
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
}

TEST_F(MirrorUpdaterTest, RemoteChangesRenameAndTrashWithoutDownloadingAgain) {
  const Uuid notes = world.materialiseSample();
  const std::size_t requests = world.transport.requestCount();
  const auto inode = [&](const std::string& path) { return world.mirror->stat(path).inode; };
  const auto docsInode = inode("Notes/docs");

  world.changeSample(notes);
  world.store->upsertBrain({notes, "notes", "Journal", std::nullopt});
  world.store->recordChange(synckit::SyncItemIdentifier::brain(notes), false);

  const auto done = world.updater->update();
  EXPECT_EQ(done.written, 1);
  EXPECT_EQ(done.trashed, 1);
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
  const Tree expected{{"Journal", kFolder},
                      {"Journal/archive", kFolder},
                      {"Journal/archive/docs", kFolder},
                      {"Journal/archive/docs/a.md", "alpha"},
                      {"Journal/archive/docs/sub", kFolder},
                      {"Journal/archive/docs/sub/b.md", "beta"},
                      {"Journal/top.md", "new top"},
                      {"Journal/one.md", "second"},
                      {"Journal/two.md", "first"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_EQ(inode("Journal/archive/docs"), docsInode);  // renamed once, not made anew
  EXPECT_TRUE(world.staged().empty());
  EXPECT_EQ(treeOf(world.trashFiles()), (Tree{{"gone", kFolder}, {"gone/x.md", "doomed"}}));
  EXPECT_TRUE(fs::exists(world.temp / "data" / "Trash" / "info" / "gone.trashinfo"));
  world.expectIndexMatchesDisk();
  EXPECT_EQ(world.store->ownWriteCount(notes, "archive/docs"), 1);

  // A revoked brain's folder goes to the trash whole and is forgotten.
  synckit::BrainGrants::apply({}, *world.store);
  world.updater->update();
  EXPECT_EQ(world.tree(), Tree{});
  EXPECT_TRUE(fs::is_directory(world.trashFiles() / "Journal" / "archive" / "docs"));
  EXPECT_TRUE(world.index->brainFolders().empty());
  EXPECT_TRUE(world.index->entries(notes).empty());
}

TEST_F(MirrorUpdaterTest, LocalEditsAndFilesTheProviderDidNotWriteAreKept) {
  const Uuid notes = world.addBrain("Notes", "notes");
  world.putFile(notes, "edited.md", "server v1");
  world.putFile(notes, "folder/edited.md", "server inside");
  world.putFile(notes, "folder/clean.md", "clean");
  world.updater->update();

  writeFile(world.mirrorPath / "Notes/edited.md", "my edit");
  writeFile(world.mirrorPath / "Notes/folder/edited.md", "my other edit");
  writeFile(world.mirrorPath / "Notes/mine.md", "mine");
  writeFile(world.mirrorPath / "Notes/same.md", "same bytes");
  // A new file the journal queued for creation: its row has no node yet.
  writeFile(world.mirrorPath / "Notes/folder/queued.md", "queued");
  const FileState queued = world.mirror->stat("Notes/folder/queued.md");
  world.index->put({notes, std::string(LocalJournal::placeholderPrefix) + "1",
                    "Notes/folder/queued.md", false, 0, queued.size, queued.mtimeNanoseconds,
                    queued.inode, synckit::hexLower(synckit::sha256("queued"))});
  world.putFile(notes, "edited.md", "server v2");
  world.deleteNode(notes, "folder");
  world.putFile(notes, "mine.md", "theirs");
  world.putFile(notes, "same.md", "same bytes");

  const auto done = world.updater->update();
  EXPECT_EQ(done.adopted, 1);
  EXPECT_EQ(done.written, 0);
  EXPECT_EQ(done.kept, 3);
  const Tree expected{{"Notes", kFolder},
                      {"Notes/edited.md", "my edit"},
                      {"Notes/folder", kFolder},
                      {"Notes/folder/edited.md", "my other edit"},
                      {"Notes/folder/queued.md", "queued"},
                      {"Notes/mine.md", "mine"},
                      {"Notes/same.md", "same bytes"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_EQ(treeOf(world.trashFiles()), (Tree{{"clean.md", "clean"}}));
  EXPECT_TRUE(world.index->entryAtPath("Notes/same.md").has_value());
  EXPECT_FALSE(world.index->entryAtPath("Notes/folder/edited.md").has_value());
  EXPECT_FALSE(world.index->entryAtPath("Notes/mine.md").has_value());
  EXPECT_TRUE(world.index->retries().empty());  // left for the conflict handling, not retried
}

TEST_F(MirrorUpdaterTest, UnsafePathsAreSkippedAndNothingIsWrittenOutsideTheMirror) {
  const Uuid notes = world.addBrain("Notes", "notes");
  world.putFile(notes, "ok.md", "fine");
  world.updater->update();
  const fs::path outside = world.temp / "outside";
  writeFile(outside / "target.md", "precious");
  fs::create_directory_symlink(outside, world.mirrorPath / "Notes" / "link");
  fs::create_symlink(outside / "target.md", world.mirrorPath / "Notes" / "file-link.md");

  synckit::NodeRecord escape;
  escape.brainId = notes;
  escape.nodeId = "escape";
  escape.path = "a/../../escape.md";
  escape.contentVersion = 1;
  world.store->upsertNode(escape);
  world.store->recordChange(synckit::SyncItemIdentifier::node(notes, "escape"), false);
  world.setServed(notes, escape.path, "out", false);
  world.putFile(notes, "link/inside.md", "through the link");
  world.putFile(notes, "file-link.md", "over the link");
  world.putFile(notes, "after.md", "still done");

  const auto done = world.updater->update();
  EXPECT_EQ(done.written, 1);
  EXPECT_EQ(done.skipped, 2);
  EXPECT_EQ(world.skips, (std::vector<std::string>{"a/../../escape.md", "link/inside.md"}));
  EXPECT_EQ(treeOf(outside), (Tree{{"target.md", "precious"}}));
  EXPECT_EQ(entryNames(world.temp / "home"), std::set<std::string>{"Halvark"});
  EXPECT_EQ(entryNames(world.temp.path()), (std::set<std::string>{"container", "home", "outside"}));
  const Tree expected{{"Notes", kFolder},
                      {"Notes/after.md", "still done"},
                      {"Notes/file-link.md", "->" + (outside / "target.md").string()},
                      {"Notes/link", "->" + outside.string()},
                      {"Notes/ok.md", "fine"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_TRUE(world.staged().empty());

  // Each is reported once, however often it comes round.
  world.store->touchContent(notes, "escape");
  world.updater->update();
  EXPECT_EQ(world.skips.size(), 2u);
}

// A crash anywhere in an update (every store and index commit, file put in
// place and item trashed is a point where one is simulated, the objects
// then opened afresh) leaves a state that the next update completes.
TEST(MirrorUpdaterCrashTest, AnUpdateCutShortAnywhereConvergesOnTheNextOne) {
  const Tree expected{{"Notes", kFolder},
                      {"Notes/archive", kFolder},
                      {"Notes/archive/docs", kFolder},
                      {"Notes/archive/docs/a.md", "alpha"},
                      {"Notes/archive/docs/sub", kFolder},
                      {"Notes/archive/docs/sub/b.md", "beta"},
                      {"Notes/new", kFolder},
                      {"Notes/new/c.md", "fresh"},
                      {"Notes/top.md", "new top"},
                      {"Notes/one.md", "second"},
                      {"Notes/two.md", "first"}};
  int reachedEnd = 0;
  for (int crashAt = 1; crashAt < 200 && reachedEnd == 0; ++crashAt) {
    SCOPED_TRACE("crash point " + std::to_string(crashAt));
    World world;
    const Uuid notes = world.materialiseSample();
    world.changeSample(notes);
    world.putFile(notes, "new/c.md", "fresh");

    std::atomic<int> reached = 0;  // renames run side by side
    synckit::setCrashPointHook([&] {
      if (++reached == crashAt) throw SimulatedCrash{};
    });
    try {
      world.updater->update();
      reachedEnd = crashAt;
    } catch (const SimulatedCrash&) {
    }
    synckit::setCrashPointHook({});
    world.reopen();
    world.updater->update();

    EXPECT_EQ(world.tree(), expected);
    EXPECT_TRUE(world.staged().empty());
    // One trashed folder, whatever name an interrupted attempt left it.
    const auto trashed = entryNames(world.trashFiles());
    ASSERT_EQ(trashed.size(), 1u);
    EXPECT_EQ(treeOf(world.trashFiles() / *trashed.begin()), (Tree{{"x.md", "doomed"}}));
    world.expectIndexMatchesDisk();
    if (::testing::Test::HasFailure()) break;
  }
  EXPECT_GT(reachedEnd, 5);
}

}  // namespace
}  // namespace halvark::provider
