#include "synckit/engine/reconciler.h"

#include <gtest/gtest.h>

#include "synckit/base/error.h"
#include "synckit/engine/feed_test_store.h"
#include "synckit/store/sqlite_error.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using Strings = std::vector<std::string>;

Timestamp at(int minute) {
  return Timestamp::fromMilliseconds(1'767'000'000'000 + minute * 60'000);
}

FeedEntry entry(std::string cursor, std::vector<Op> ops, int minute = 0) {
  return FeedEntry{std::move(cursor), at(minute), {}, std::move(ops)};
}
Op createFile(std::string path, std::string title, NodeKind kind = NodeKind::text) {
  return Op::Create{std::move(path), std::move(title), {"tag"}, false, kind};
}
Op update(std::string path, bool bodyChanged = true) {
  return Op::Update{std::move(path), std::nullopt, std::nullopt, bodyChanged, std::nullopt};
}

ConflictResolution neverCalled(const FeedEntry&, const Op& op, const PendingChange&) {
  ADD_FAILURE() << "unexpected collision at " << op.path();
  return ConflictResolution::remoteWins;
}

class ReconcilerTest : public ::testing::Test {
 protected:
  ReconcileResult apply(const std::vector<FeedEntry>& entries, std::string cursor,
                        const ConflictHandler& resolve = neverCalled) {
    return Reconciler::reconcile(entries, t.brainId, cursor, *t.store, resolve);
  }
  Strings downloadedPaths(const ReconcileResult& result) {
    Strings paths;
    for (const auto& request : result.downloads) paths.push_back(request.path);
    return paths;
  }
  std::int64_t enqueue(std::string path, std::optional<std::string> baseCursor) {
    PendingChange change;
    change.brainId = t.brainId;
    change.changeKind = PendingChangeKind::update;
    change.path = std::move(path);
    change.baseCursor = std::move(baseCursor);
    return t.store->enqueue(change);
  }

  testing::FeedTestStore t;
};

TEST_F(ReconcilerTest, CreatesOverExistingNodesFollowTheirSort) {
  EXPECT_EQ(apply({}, "c1"), (ReconcileResult{{}, false}));  // only the cursor moves
  EXPECT_TRUE(t.log().empty());
  t.put("n-same", "same.md");
  t.put("n-titled", "titled.md");
  t.put("n-kind", "kind.md");
  t.put("n-file", "was-file");
  t.put("n-folder", "was-folder", true);
  t.put("n-inner", "was-folder/inner.md");
  t.put("n-dir", "dir", true);
  t.put("n-mk", "mk-over-file");

  const auto result =
      apply({entry("c2", {createFile("same.md", "same.md"), createFile("titled.md", "Other"),
                          createFile("kind.md", "kind.md", NodeKind::blob),
                          Op::Create{"was-file", "F", {}, true, std::nullopt},
                          createFile("was-folder", "was-folder"),
                          Op::Create{"dir", "", {}, true, std::nullopt},
                          Op::Mkdir{"dir", "Renamed"}, Op::Mkdir{"mk-over-file", "mk"}})},
            "c2");

  // Same kind and title: a content update of the existing node; another
  // title or kind: a new node. A folder is retitled only by a non-empty
  // title and keeps its date.
  const NodeRecord titled = t.node("titled.md"), kind = t.node("kind.md");
  EXPECT_EQ(t.tree(),
            (Strings{"dir=n-dir", "kind.md=" + kind.nodeId, "mk-over-file=dir:mk-over-file",
                     "same.md=n-same", "titled.md=" + titled.nodeId, "was-file=dir:was-file",
                     "was-folder=" + t.node("was-folder").nodeId}));
  EXPECT_TRUE(titled.nodeId.starts_with("local:") && kind.nodeId.starts_with("local:"));
  EXPECT_EQ(t.node("same.md").contentVersion, 2);
  EXPECT_EQ(titled.contentVersion, 1);
  EXPECT_EQ(kind.kind, NodeKind::blob);
  EXPECT_FALSE(t.node("was-folder").isDirectory);
  EXPECT_EQ(t.node("dir").title, "Renamed");
  EXPECT_EQ(t.node("dir").updatedAt, *Timestamp::parse("2025-01-01T00:00:00.000Z"));
  EXPECT_EQ(t.log(),
            (Strings{"+n-same", "-n-titled", "+" + titled.nodeId, "-n-kind", "+" + kind.nodeId,
                     "-n-file", "+dir:was-file", "-n-folder", "-n-inner",
                     "+" + t.node("was-folder").nodeId, "+n-dir", "-n-mk", "+dir:mk-over-file"}));
  EXPECT_TRUE(result.changedAnchors);
  EXPECT_EQ(downloadedPaths(result), (Strings{"same.md", "titled.md", "kind.md", "was-folder"}));
}

TEST_F(ReconcilerTest, IgnoredNamesAreSkippedExceptByDeletes) {
  t.put("n-ds", "a/.DS_Store");
  t.put("n-b", "b", true);
  t.put("n-b1", "b/1.md");
  t.put("n-c", "c.md");
  apply({entry("c1", {createFile("x/.DS_Store", ".DS_Store"), update("a/.DS_Store"),
                      Op::Mkdir{"Icon\r", "Icon"}, Op::Move{"a/.DS_Store", "a/shown"},
                      Op::Move{"b", "trash/.gitkeep"}, Op::Move{"c.md", "d.md"},
                      createFile("ok/.DS_Store.md", "fine")})},
        "c1");
  EXPECT_EQ(t.paths(), (Strings{"a/.DS_Store", "d.md", "ok", "ok/.DS_Store.md"}));
  EXPECT_EQ(t.node("a/.DS_Store").contentVersion, 1);

  apply({entry("c2", {Op::Delete{"a/.DS_Store"}})}, "c2");
  EXPECT_EQ(t.paths(), (Strings{"d.md", "ok", "ok/.DS_Store.md"}));
}

TEST_F(ReconcilerTest, PageMixingCreatesMovesAndDeletesOfOneNode) {
  const auto result = apply(
      {entry("c1", {createFile("a/n.md", "n.md"), createFile("tmp.md", "tmp.md")}, 1),
       entry("c2", {Op::Move{"a/n.md", "b/n.md"}, update("b/n.md")}, 2),
       entry("c3", {Op::Delete{"tmp.md"}, Op::Move{"b", "d"}, createFile("a/n.md", "again")}, 3),
       entry("c4", {Op::Delete{"a/n.md"}, Op::Move{"d/n.md", "d/m.md"}}, 4)},
      "c4");

  const NodeRecord moved = t.node("d/m.md");
  EXPECT_EQ(t.tree(), (Strings{"a=dir:a", "d=dir:d", "d/m.md=" + moved.nodeId}));
  EXPECT_EQ(moved.title, "n.md");
  EXPECT_EQ(moved.updatedAt, at(2));
  EXPECT_EQ(
      result.downloads,
      (std::vector<DownloadRequest>{{t.brainId, moved.nodeId, "d/m.md", NodeKind::text, 2, "c4"}}));
  EXPECT_EQ(t.store->cursor(t.brainId), "c4");
  // tmp.md, dir:b (re-keyed as dir:d) and the second a/n.md.
  EXPECT_EQ(t.store->changes(0).deleted.size(), 3u);
}

TEST_F(ReconcilerTest, CollisionsAskTheHandlerOncePerPendingChangeAndOp) {
  const auto based = enqueue("a/x.md", std::string("c2"));
  const auto unbased = enqueue("a/y.md", std::nullopt);
  enqueue("elsewhere.md", std::nullopt);
  t.put("dir:a", "a", true);
  std::vector<std::pair<std::string, std::int64_t>> asked;
  auto record = [&](const FeedEntry& e, const Op&, const PendingChange& change) {
    asked.emplace_back(e.cursor, *change.id);
    // Removing a change does not take it out of the page's snapshot.
    t.store->removePendingChange(*change.id);
    return ConflictResolution::remoteWins;
  };
  apply({entry("c1", {update("a/x.md", false)}), entry("c2", {Op::Delete{"a"}}),
         entry("c3", {Op::Mkdir{"a", "a"}, Op::Delete{"a"}})},
        "c3", record);
  EXPECT_EQ(asked, (std::vector<std::pair<std::string, std::int64_t>>{
                       {"c1", based}, {"c2", unbased}, {"c3", unbased}}));
  EXPECT_EQ(t.store->pendingChanges(t.brainId).size(), 1u);
}

// A page that writes in every part of the store before its last entry, whose
// last op collides with a pending change; the handler writes through the
// same transaction. Any failure must leave the store exactly as before.
class ReconcilerAtomicityTest : public ReconcilerTest {
 protected:
  void SetUp() override {
    t.put("dir:a", "a", true);
    t.put("n-1", "a/one.md");
    t.put("n-2", "two.md");
    t.store->recordChange(SyncItemIdentifier::node(t.brainId, "n-1"), false);
    t.store->recordOwnWrite(t.brainId, "two.md");
    enqueue("last.md", std::nullopt);
    before = t.state();
  }

  void applyPage(const ConflictHandler& handler) {
    apply({entry("c1", {createFile("z/new.md", "new"), Op::Move{"a", "b"}}),
           entry("c2", {Op::Delete{"two.md"}, update("b/one.md")}),
           entry("c3", {createFile("z/boom.md", "boom"), update("last.md")})},
          "c3", handler);
  }

  ConflictHandler answering(ConflictResolution answer) {
    return [this, answer](const FeedEntry&, const Op&, const PendingChange& change) {
      t.store->recordOwnWrite(t.brainId, "last.md");
      t.store->removePendingChange(*change.id);
      return answer;
    };
  }

  void expectApplied() {
    EXPECT_EQ(t.store->cursor(t.brainId), "c3");
    EXPECT_EQ(t.paths(), (Strings{"b", "b/one.md", "last.md", "z", "z/boom.md", "z/new.md"}));
    EXPECT_TRUE(t.store->pendingChanges(t.brainId).empty());
  }

  testing::FeedTestStore::State before;
};

TEST_F(ReconcilerAtomicityTest, AKeepLocalAnswerOrAHandlerErrorLeavesEverythingAsBefore) {
  enqueue("last.md", std::string("c9"));  // a second change the last op collides with
  before = t.state();
  int asked = 0;
  auto keepFirst = [&](const FeedEntry& e, const Op& op, const PendingChange& change) {
    // Every colliding change is still asked after a keepLocal answer.
    return answering(++asked == 1 ? ConflictResolution::keepLocal : ConflictResolution::remoteWins)(
        e, op, change);
  };
  EXPECT_THROW(applyPage(keepFirst), FileNotFoundError);
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(t.state(), before);

  EXPECT_THROW(
      applyPage([](const FeedEntry&, const Op&, const PendingChange&) -> ConflictResolution {
        throw TransportError(TransportError::Kind::timedOut, "");
      }),
      TransportError);
  EXPECT_EQ(t.state(), before);

  applyPage(answering(ConflictResolution::remoteWins));
  expectApplied();
}

TEST_F(ReconcilerAtomicityTest, AStoreFailurePartWayLeavesEverythingAsBefore) {
  t.observer.execute(
      "CREATE TRIGGER refuse_boom BEFORE INSERT ON nodes WHEN NEW.path = 'z/boom.md' "
      "BEGIN SELECT RAISE(ABORT, 'injected failure'); END");
  const auto error =
      testing::thrownBy<SQLiteError>([&] { applyPage(answering(ConflictResolution::remoteWins)); });
  EXPECT_EQ(error.message(), "injected failure");
  EXPECT_EQ(t.state(), before);

  // The connection is not left inside a transaction: the page goes through once allowed.
  t.observer.execute("DROP TRIGGER refuse_boom");
  applyPage(answering(ConflictResolution::remoteWins));
  expectApplied();
}

}  // namespace
}  // namespace synckit
