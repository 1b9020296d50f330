#include "synckit/engine/reconciler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "synckit/api/sync_json.h"
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
  NodeRecord node(std::string_view path) { return *t.store->nodeAtPath(t.brainId, path); }
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

TEST_F(ReconcilerTest, EmptyPageMovesOnlyTheCursor) {
  EXPECT_EQ(apply({}, "c1"), (ReconcileResult{{}, false}));
  EXPECT_EQ(t.store->cursor(t.brainId), "c1");
  EXPECT_TRUE(t.log().empty());
}

TEST_F(ReconcilerTest, CreatesOverExistingNodesFollowTheirSort) {
  t.put("n-same", "same.md");
  t.put("n-titled", "titled.md");
  t.put("n-kind", "kind.md");
  t.put("n-file", "was-file");
  t.put("n-folder", "was-folder", true);
  t.put("n-inner", "was-folder/inner.md");
  t.put("n-dir", "dir", true);
  t.put("n-mk", "mk-over-file");

  const auto result = apply(
      {entry("c1",
             {createFile("same.md", "same.md"), createFile("titled.md", "Other"),
              createFile("kind.md", "kind.md", NodeKind::blob),
              Op::Create{"was-file", "F", {}, true, std::nullopt},
              createFile("was-folder", "was-folder"), Op::Create{"dir", "", {}, true, std::nullopt},
              Op::Mkdir{"dir", "Renamed"}, Op::Mkdir{"mk-over-file", "mk"}},
             5)},
      "c1");

  // Same kind and title: a content update of the existing node.
  EXPECT_EQ(node("same.md").nodeId, "n-same");
  EXPECT_EQ(node("same.md").contentVersion, 2);
  // Another title or kind: replaced by a new node.
  for (const char* path : {"titled.md", "kind.md"}) {
    EXPECT_TRUE(node(path).nodeId.starts_with("local:")) << path;
    EXPECT_EQ(node(path).contentVersion, 1);
  }
  EXPECT_EQ(node("kind.md").kind, NodeKind::blob);
  EXPECT_EQ(node("was-file").nodeId, "dir:was-file");
  EXPECT_FALSE(node("was-folder").isDirectory);
  EXPECT_FALSE(t.store->nodeAtPath(t.brainId, "was-folder/inner.md"));
  EXPECT_EQ(node("mk-over-file").nodeId, "dir:mk-over-file");
  // A folder is retitled only by a non-empty title, and keeps its date.
  EXPECT_EQ(node("dir").title, "Renamed");
  EXPECT_EQ(node("dir").updatedAt, *Timestamp::parse("2025-01-01T00:00:00.000Z"));

  const Strings log = t.log();
  for (const char* gone : {"-n-titled", "-n-kind", "-n-file", "-n-folder", "-n-inner", "-n-mk"})
    EXPECT_THAT(log, ::testing::Contains(gone));
  EXPECT_EQ(std::count(log.begin(), log.end(), "+n-dir"), 1);
  EXPECT_TRUE(result.changedAnchors);
  Strings downloaded;
  for (const auto& request : result.downloads) downloaded.push_back(request.path);
  EXPECT_EQ(downloaded, (Strings{"same.md", "titled.md", "kind.md", "was-folder"}));
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
  EXPECT_EQ(node("a/.DS_Store").contentVersion, 1);

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

  EXPECT_EQ(t.paths(), (Strings{"a", "d", "d/m.md"}));
  const NodeRecord moved = node("d/m.md");
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

class ReconcilerAtomicityTest : public ReconcilerTest {
 protected:
  void SetUp() override {
    t.put("dir:a", "a", true);
    t.put("n-1", "a/one.md");
    t.put("n-2", "two.md");
    t.store->recordChange(SyncItemIdentifier::node(t.brainId, "n-1"), false);
    t.store->recordOwnWrite(t.brainId, "two.md");
    enqueue("last.md", std::nullopt);
  }

  // Writes in every part of the store before its last entry.
  std::vector<FeedEntry> page() {
    return {entry("c1", {createFile("z/new.md", "new"), Op::Move{"a", "b"}}),
            entry("c2", {Op::Delete{"two.md"}, update("b/one.md")}),
            entry("c3", {createFile("z/boom.md", "boom"), update("last.md")})};
  }

  // A handler that writes through the same transaction, then answers `last`.
  ConflictHandler handler(ConflictResolution last) {
    return [this, last](const FeedEntry&, const Op&, const PendingChange& change) {
      t.store->recordOwnWrite(t.brainId, "last.md");
      t.store->removePendingChange(*change.id);
      return last;
    };
  }
};

TEST_F(ReconcilerAtomicityTest, AKeepLocalAnswerOrAHandlerErrorLeavesEverythingAsBefore) {
  enqueue("last.md", std::string("c9"));  // a second change the last op collides with
  const auto before = t.state();
  int asked = 0;
  ConflictHandler keepFirst = [&](const FeedEntry& e, const Op& op, const PendingChange& change) {
    // Every colliding change is still asked after a keepLocal answer.
    return handler(++asked == 1 ? ConflictResolution::keepLocal : ConflictResolution::remoteWins)(
        e, op, change);
  };
  EXPECT_THROW(apply(page(), "c3", keepFirst), FileNotFoundError);
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(t.state(), before);

  ConflictHandler failing = [](const FeedEntry&, const Op&,
                               const PendingChange&) -> ConflictResolution {
    throw TransportError(TransportError::Kind::timedOut, "");
  };
  EXPECT_THROW(apply(page(), "c3", failing), TransportError);
  EXPECT_EQ(t.state(), before);

  apply(page(), "c3", handler(ConflictResolution::remoteWins));
  EXPECT_EQ(t.store->cursor(t.brainId), "c3");
  EXPECT_EQ(t.paths(), (Strings{"b", "b/one.md", "last.md", "z", "z/boom.md", "z/new.md"}));
  EXPECT_TRUE(t.store->pendingChanges(t.brainId).empty());
}

TEST_F(ReconcilerAtomicityTest, AStoreFailurePartWayLeavesEverythingAsBefore) {
  // Installed through another connection, as a second process would.
  t.observer.execute(
      "CREATE TRIGGER refuse_boom BEFORE INSERT ON nodes WHEN NEW.path = 'z/boom.md' "
      "BEGIN SELECT RAISE(ABORT, 'injected failure'); END");
  const auto before = t.state();
  const auto error = testing::thrownBy<SQLiteError>(
      [&] { apply(page(), "c3", handler(ConflictResolution::remoteWins)); });
  EXPECT_EQ(error.message(), "injected failure");
  EXPECT_EQ(t.state(), before);

  // The connection is not left inside a transaction: the page goes through once allowed.
  t.observer.execute("DROP TRIGGER refuse_boom");
  apply(page(), "c3", handler(ConflictResolution::remoteWins));
  EXPECT_EQ(t.store->cursor(t.brainId), "c3");
  EXPECT_EQ(node("z/boom.md").title, "boom");
}

TEST_F(ReconcilerAtomicityTest, APageThatDoesNotDecodeFailsWholeBeforeAnythingIsApplied) {
  auto decodeAndApply = [&](std::string_view json) {
    auto response = SyncJSON::decode<ChangesResponse>(json);
    const auto& page = *response.as<ChangesResponse::Incremental>();
    return Reconciler::reconcile(page.entries, t.brainId, page.cursor, *t.store, neverCalled);
  };
  const std::string good = R"({"reset":false,"cursor":"c2","entries":[
      {"cursor":"c1","at":"2026-01-01T00:00:00.000Z","author":{"kind":"member","memberId":"m"},
       "ops":[{"kind":"delete","path":"two.md"}]},
      {"cursor":"c2","at":"2026-01-01T00:01:00.000Z","author":{"kind":"member","memberId":"m"},
       "ops":[{"kind":"mkdir","path":"d","title":"d"},OP]}]})";
  auto withOp = [&](std::string_view op) {
    std::string text = good;
    return text.replace(text.find("OP"), 2, op);
  };

  const auto before = t.state();
  EXPECT_THROW(decodeAndApply(withOp(R"({"kind":"move","path":"a"})")), DecodingError);
  EXPECT_THROW(decodeAndApply(withOp(R"({"kind":"rename","path":"a","newPath":"b"})")),
               DecodingError);
  EXPECT_EQ(t.state(), before);

  decodeAndApply(withOp(R"({"kind":"move","path":"a","newPath":"b"})"));
  EXPECT_EQ(t.paths(), (Strings{"b", "b/one.md", "d"}));
  EXPECT_EQ(t.store->cursor(t.brainId), "c2");
}

}  // namespace
}  // namespace synckit
