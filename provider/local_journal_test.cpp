#include "provider/local_journal.h"

#include <gtest/gtest.h>

#include "provider/mirror_test_world.h"
#include "synckit/conflicts/conflict_event_log.h"
#include "synckit/conflicts/sync_error_log.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/engine/upload_planner.h"

namespace halvark::provider {
namespace {

namespace fs = std::filesystem;
using synckit::PendingChangeKind;
using synckit::Uuid;
using testing::contentOf;
using testing::kFolder;
using testing::Tree;
using testing::writeFile;
using Kind = LocalChange::Kind;

LocalChange written(std::string path) { return {Kind::written, std::move(path), {}, false}; }
LocalChange madeFolder(std::string path) { return {Kind::madeFolder, std::move(path), {}, true}; }
LocalChange removed(std::string path) { return {Kind::removed, std::move(path), {}, false}; }
LocalChange moved(std::string from, std::string to, bool isDirectory = false) {
  return {Kind::moved, std::move(to), std::move(from), isDirectory};
}

// A queued change as the tests compare it.
struct Queued {
  PendingChangeKind kind;
  std::string path;
  std::optional<std::string> fromPath;
  bool operator==(const Queued&) const = default;
};

void PrintTo(const Queued& queued, std::ostream* out) {
  *out << synckit::toString(queued.kind) << " " << queued.path;
  if (queued.fromPath) *out << " from " << *queued.fromPath;
}

class LocalJournalTest : public ::testing::Test {
 protected:
  testing::MirrorTestWorld world;
  synckit::ConflictSpool spool{world.temp / "container" / "Spool"};
  LocalJournal journal{*world.store, *world.index, *world.mirror, spool,
                       synckit::Logger("test", "journal")};
  Uuid notes = world.addBrain("Notes", "notes");

  fs::path at(const std::string& path) const { return world.mirrorPath / path; }

  std::vector<Queued> queued() {
    std::vector<Queued> all;
    for (const auto& change : world.store->pendingChanges()) {
      all.push_back({change.changeKind, change.path, change.fromPath});
    }
    return all;
  }

  // What the sync loop does once the server took pending change `id`: the
  // server now has its bytes, which the updater fetches (or knows by their
  // hash, for a blob).
  void uploaded(const std::string& path, std::int64_t id, bool blob = false) {
    const auto bytes = spool.pendingBytes(id);
    ASSERT_TRUE(bytes);
    const auto node = world.store->nodeAtPath(notes, path);
    synckit::LocalMutations::applyUpload(
        *world.store, notes, synckit::WriteResult{{node ? node->nodeId : "n-" + path, path}, "c"},
        blob ? synckit::NodeKind::blob : synckit::NodeKind::text,
        blob ? std::optional(synckit::hexLower(synckit::sha256(*bytes))) : std::nullopt,
        blob ? std::optional(static_cast<std::int64_t>(bytes->size())) : std::nullopt, id,
        synckit::Timestamp::now());
    world.setServed(notes, path, std::string(bytes->begin(), bytes->end()), blob);
  }

  std::int64_t lastId() { return *world.store->pendingChanges().back().id; }
};

TEST_F(LocalJournalTest, EditsAreQueuedWithTheirBytesOnceAndTheirUploadIsAdoptedInPlace) {
  world.putFile(notes, "a.md", "v1");
  world.updater->update();
  writeFile(at("Notes/a.md"), "v2");
  writeFile(at("Notes/dir/new.md"), "hello");
  const std::vector<LocalChange> changes{written("Notes/a.md"), madeFolder("Notes/dir"),
                                         written("Notes/dir/new.md")};

  EXPECT_EQ(journal.apply(changes).journalled, 3);
  const std::vector<Queued> expected{{PendingChangeKind::update, "a.md", {}},
                                     {PendingChangeKind::mkdir, "dir", {}},
                                     {PendingChangeKind::create, "dir/new.md", {}}};
  EXPECT_EQ(queued(), expected);
  const auto pending = world.store->pendingChanges();
  EXPECT_EQ(pending[0].nodeId, world.store->nodeAtPath(notes, "a.md")->nodeId);
  EXPECT_EQ(spool.pendingBytes(*pending[0].id), synckit::toBytes("v2"));
  EXPECT_EQ(spool.pendingBytes(*pending[2].id), synckit::toBytes("hello"));

  // Reported again (a rescan), touched without a change, or written by the
  // updater itself: nothing more is queued, and the updater's marks go.
  const auto mtime = fs::last_write_time(at("Notes/a.md"));
  fs::last_write_time(at("Notes/a.md"), mtime + std::chrono::seconds(5));
  world.putFile(notes, "b.md", "from the server");
  world.updater->update();
  auto again = changes;
  again.push_back(written("Notes/b.md"));
  EXPECT_EQ(journal.apply(again), LocalJournal::Outcome{});
  EXPECT_EQ(queued(), expected);
  EXPECT_EQ(world.store->ownWriteCount(notes, "b.md"), 0);

  // The uploads come back through the updater, which keeps the user's files
  // (same inodes) instead of writing them again, without fetching a blob
  // whose hash it knows, and the new file's row passes to its node.
  const auto inodeA = world.mirror->stat("Notes/a.md").inode;
  const auto inodeNew = world.mirror->stat("Notes/dir/new.md").inode;
  uploaded("a.md", *pending[0].id);
  world.store->writeTransaction([&] {
    synckit::LocalMutations::applyLocalDirectory(*world.store, notes, "dir",
                                                 synckit::Timestamp::now());
    world.store->removePendingChange(*pending[1].id);
  });
  uploaded("dir/new.md", *pending[2].id, true);
  const std::size_t requests = world.transport.requestCount();
  const auto summary = world.updater->update();
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
  EXPECT_EQ(summary.written, 0);
  EXPECT_EQ(summary.adopted, 2);
  EXPECT_EQ(world.mirror->stat("Notes/a.md").inode, inodeA);
  EXPECT_EQ(world.mirror->stat("Notes/dir/new.md").inode, inodeNew);
  const auto node = world.store->nodeAtPath(notes, "dir/new.md");
  EXPECT_EQ(world.index->entryAtPath("Notes/dir/new.md")->nodeId, node->nodeId);
  EXPECT_EQ(world.index->entryAtPath("Notes/dir/new.md")->contentVersion, node->contentVersion);
  EXPECT_EQ(journal.apply(changes), LocalJournal::Outcome{});
}

TEST_F(LocalJournalTest, MovesDeletesAndItemsAtTheTopOfTheMirror) {
  world.addBrain("Work", "work");
  world.store->setMeta(synckit::MetaKey::inboxBrainId, notes.toString());
  world.putFile(notes, "docs/a.md", "alpha");
  world.putFile(notes, "docs/sub/b.md", "beta");
  world.putFile(notes, "c.md", "gamma");
  world.putFile(notes, "gone.md", "doomed");
  world.putFile(notes, "x.md", "crossing");
  world.updater->update();

  fs::rename(at("Notes/c.md"), at("Notes/c2.md"));
  writeFile(at("Notes/c2.md"), "gamma, renamed");
  fs::create_directories(at("Notes/archive"));
  fs::rename(at("Notes/docs"), at("Notes/archive/docs"));
  fs::remove(at("Notes/gone.md"));
  writeFile(at("loose.md"), "at the top");
  writeFile(at("c2.md"), "a clash");
  fs::rename(at("Notes/x.md"), at("Work/x.md"));
  writeFile(at("Notes/big.bin"), "");
  fs::resize_file(at("Notes/big.bin"), synckit::UploadPlanner::maxUploadBytes + 1);
  const std::vector<LocalChange> changes{moved("Notes/c.md", "Notes/c2.md"),
                                         madeFolder("Notes/archive"),
                                         moved("Notes/docs", "Notes/archive/docs", true),
                                         removed("Notes/gone.md"),
                                         written("loose.md"),
                                         written("c2.md"),
                                         moved("Notes/x.md", "Work/x.md"),
                                         written("Notes/big.bin")};

  const auto outcome = journal.apply(changes);
  const std::vector<Queued> expected{
      {PendingChangeKind::move, "c2.md", "c.md"},
      {PendingChangeKind::update, "c2.md", {}},
      {PendingChangeKind::mkdir, "archive", {}},
      {PendingChangeKind::move, "archive/docs", "docs"},
      {PendingChangeKind::delete_, "gone.md", {}},
      {PendingChangeKind::create, "loose.md", {}},
      {PendingChangeKind::create, "c2 2.md", {}},
  };
  EXPECT_EQ(queued(), expected);
  EXPECT_EQ(outcome.journalled, 7);
  const std::vector<std::string> refusals{
      std::string(synckit::UploadPlanner::crossBrainMessage),
      "This file is too large to upload (104857601 bytes). The limit is 104857600 bytes."};
  EXPECT_EQ(outcome.refusals, refusals);
  EXPECT_EQ(synckit::SyncErrorLog::drain(*world.store), refusals);

  // All of it again, as a rescan would find it: nothing new, no second
  // report of the refusals.
  EXPECT_EQ(journal.apply(changes).journalled, 0);
  EXPECT_EQ(queued(), expected);
  EXPECT_TRUE(synckit::SyncErrorLog::drain(*world.store).empty());

  // Top-level files went into the inbox brain's folder; refused items stay
  // where the user put them.
  EXPECT_EQ(fs::file_size(at("Notes/big.bin")), synckit::UploadPlanner::maxUploadBytes + 1);
  fs::remove(at("Notes/big.bin"));
  const Tree expectedTree{{"Notes", kFolder},
                          {"Notes/archive", kFolder},
                          {"Notes/archive/docs", kFolder},
                          {"Notes/archive/docs/a.md", "alpha"},
                          {"Notes/archive/docs/sub", kFolder},
                          {"Notes/archive/docs/sub/b.md", "beta"},
                          {"Notes/c2 2.md", "a clash"},
                          {"Notes/c2.md", "gamma, renamed"},
                          {"Notes/loose.md", "at the top"},
                          {"Work", kFolder},
                          {"Work/x.md", "crossing"}};
  EXPECT_EQ(world.tree(), expectedTree);
  EXPECT_EQ(world.index->entryAtPath("Notes/archive/docs/sub/b.md")->nodeId,
            world.store->nodeAtPath(notes, "docs/sub/b.md")->nodeId);

  // The refused item moves back into its brain: a move there, from where
  // the store has it. A folder made and removed before any file was in it
  // never needed the server.
  fs::rename(at("Work/x.md"), at("Notes/y.md"));
  fs::create_directories(at("Notes/empty"));
  journal.apply({moved("Work/x.md", "Notes/y.md"), madeFolder("Notes/empty")});
  fs::remove(at("Notes/empty"));
  journal.apply({removed("Notes/empty")});
  auto more = expected;
  more.push_back({PendingChangeKind::move, "y.md", "x.md"});
  EXPECT_EQ(queued(), more);
}

TEST_F(LocalJournalTest, AStaleEditBecomesAConflictedCopyAndTheUpdaterFetchesTheOriginal) {
  world.store->setMeta(synckit::MetaKey::deviceName, "Desk");
  world.putFile(notes, "a.md", "v1");
  world.putFile(notes, "b.md", "b1");
  world.updater->update();

  // This device's own uploads are no reason for a copy: while an edit waits
  // the updater leaves the file alone, and an upload the updater has not
  // seen yet is caught up on first.
  journal.setCatchUp([&] { world.updater->update(); });
  writeFile(at("Notes/b.md"), "b2");
  journal.apply({written("Notes/b.md")});
  const std::int64_t first = lastId();
  writeFile(at("Notes/b.md"), "b3 and more");
  journal.apply({written("Notes/b.md")});
  uploaded("b.md", first);
  world.updater->update();
  EXPECT_EQ(contentOf(at("Notes/b.md")), "b3 and more");
  uploaded("b.md", lastId());
  writeFile(at("Notes/b.md"), "b4");
  EXPECT_EQ(journal.apply({written("Notes/b.md")}).journalled, 1);
  EXPECT_EQ(queued(), (std::vector<Queued>{{PendingChangeKind::update, "b.md", {}}}));
  EXPECT_EQ(spool.pendingBytes(lastId()), synckit::toBytes("b4"));
  EXPECT_TRUE(synckit::ConflictEventLog::drain(*world.store).empty());

  // Another device's change is.
  world.putFile(notes, "a.md", "theirs");
  writeFile(at("Notes/a.md"), "mine");
  EXPECT_EQ(journal.apply({written("Notes/a.md")}).journalled, 1);
  const auto copy = world.store->pendingChanges().back();
  EXPECT_EQ(copy.changeKind, PendingChangeKind::create);
  EXPECT_TRUE(copy.nodeId->starts_with("local:"));
  EXPECT_TRUE(copy.path.starts_with("a (conflicted copy Desk ")) << copy.path;
  EXPECT_EQ(spool.pendingBytes(*copy.id), synckit::toBytes("mine"));
  EXPECT_EQ(contentOf(at("Notes/" + copy.path)), "mine");
  EXPECT_EQ(synckit::ConflictEventLog::drain(*world.store).size(), 1u);

  world.updater->update();
  EXPECT_EQ(contentOf(at("Notes/a.md")), "theirs");
  EXPECT_EQ(contentOf(at("Notes/" + copy.path)), "mine");
  EXPECT_EQ(journal.apply({written("Notes/a.md"), written("Notes/" + copy.path)}).journalled, 0);
}

TEST_F(LocalJournalTest, ABrainFolderRenamedOrRemovedWhileNobodyWatchedDeletesNothing) {
  const Uuid work = world.addBrain("Work", "work");
  world.putFile(notes, "a.md", "alpha");
  world.putFile(notes, "docs/b.md", "beta");
  world.putFile(work, "w.md", "omega");
  world.updater->update();

  // Renamed: it goes back under its own name, its rows untouched.
  fs::rename(at("Notes"), at("Renamed"));
  // Removed: the brain is forgotten, to be laid out afresh.
  fs::remove_all(at("Work"));
  const auto outcome = journal.recoverBrainFolders();
  EXPECT_EQ(outcome.refusals.size(), 2u);
  EXPECT_EQ(contentOf(at("Notes/docs/b.md")), "beta");
  EXPECT_FALSE(fs::exists(at("Renamed")));
  EXPECT_TRUE(world.index->entryAtPath("Notes/a.md"));
  EXPECT_FALSE(world.index->entryAtPath("Work/w.md"));
  EXPECT_FALSE(world.index->brainFolders().contains(work));
  EXPECT_TRUE(queued().empty());

  world.updater->update();
  EXPECT_EQ(contentOf(at("Work/w.md")), "omega");
  EXPECT_TRUE(queued().empty());
}

}  // namespace
}  // namespace halvark::provider
