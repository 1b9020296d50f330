#include "synckit/conflicts/conflict_detector.h"

#include <gtest/gtest.h>

#include "synckit/conflicts/conflict_resolver.h"

namespace synckit {
namespace {

PendingChange local(std::string path, std::optional<std::string> fromPath = std::nullopt,
                    std::optional<std::string> baseCursor = std::nullopt) {
  PendingChange change;
  change.changeKind = fromPath ? PendingChangeKind::move : PendingChangeKind::update;
  change.path = std::move(path);
  change.fromPath = std::move(fromPath);
  change.baseCursor = std::move(baseCursor);
  return change;
}

Op update(std::string path) { return Op::Update{std::move(path), std::nullopt, {}, true, {}}; }

TEST(ConflictDetectorTest, OnlyMovesAndDeletesReachIntoSubtreesAndPathsMatchExactly) {
  const PendingChange inside = local("a/b.md"), moved = local("y.md", "x.md");
  const struct {
    Op op;
    PendingChange change;
    bool collides;
  } rows[] = {
      {Op::Delete{"a"}, inside, true},
      {Op::Move{"a", "z"}, inside, true},
      {Op::Move{"z", "a"}, inside, true},  // a folder moved over it
      {update("a"), inside, false},
      {Op::Create{"a", "a", {}, true, {}}, inside, false},
      {Op::Mkdir{"a", "a"}, inside, false},
      // "ab" and "a0" are not inside "a", nor "a" inside "a/b"; no case folding.
      {Op::Delete{"a"}, local("ab/c.md"), false},
      {Op::Delete{"a"}, local("a0"), false},
      {Op::Delete{"a/b.md"}, local("a"), false},
      {Op::Delete{"A"}, inside, false},
      // A move's source counts as much as its destination.
      {update("x.md"), moved, true},
      {Op::Create{"y.md", "y", {}, false, {}}, moved, true},
      {Op::Move{"q.md", "y.md"}, moved, true},
      {Op::Delete{"x.md"}, moved, true},
      {update("X.md"), moved, false},
      {Op::Mkdir{"y.md/z", "z"}, moved, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ConflictDetector::remoteChangeCollides(row.op, row.change, true), row.collides)
        << row.op.path() << " vs " << row.change.path;
  }
  EXPECT_FALSE(ConflictDetector::remoteChangeCollides(Op::Delete{"x.md"}, moved, false));
}

TEST(ConflictDetectorTest, CollidingPendingHonoursBaseCursorsOrderAndDuplicates) {
  auto entry = [](std::string cursor, std::vector<Op> ops) {
    return FeedEntry{std::move(cursor), {}, {}, std::move(ops)};
  };
  const std::vector<FeedEntry> page{entry("c1", {Op::Delete{"a"}}),
                                    entry("c2", {update("b.md"), Op::Delete{"b.md"}}),
                                    entry("c3", {Op::Move{"d", "e"}})};
  const std::vector<PendingChange> pending{
      local("d/x"),               // hit in c3
      local("a/x", {}, "c1"),     // based on c1: from its entry on, nothing counts
      local("b.md", {}, "c3"),    // tested up to c2 only; hit twice there, listed once
      local("d/y", {}, "c3"),     // the move of d is in its base entry
      local("a/y", {}, "other"),  // a base outside the page: tested against everything
      local("z"),
  };
  EXPECT_EQ(ConflictResolver::collidingPending(page, pending),
            (std::vector<PendingChange>{pending[0], pending[2], pending[4]}));
}

}  // namespace
}  // namespace synckit
