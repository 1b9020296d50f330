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

bool collides(const Op& op, const PendingChange& change) {
  return ConflictDetector::remoteChangeCollides(op, change, true);
}

TEST(ConflictDetectorTest, SubtreeReachOnlyForMovesAndDeletes) {
  const PendingChange inside = local("a/b.md");
  EXPECT_TRUE(collides(Op::Delete{"a"}, inside));
  EXPECT_TRUE(collides(Op::Move{"a", "z"}, inside));
  EXPECT_TRUE(collides(Op::Move{"z", "a"}, inside));  // a folder moved over it
  EXPECT_FALSE(collides(Op::Update{"a", "A", {}, true, {}}, inside));
  EXPECT_FALSE(collides(Op::Create{"a", "a", {}, true, {}}, inside));
  EXPECT_FALSE(collides(Op::Mkdir{"a", "a"}, inside));
  // Prefix boundaries: "ab" and "a0" are not inside "a", nor "a" inside "a/b".
  EXPECT_FALSE(collides(Op::Delete{"a"}, local("ab/c.md")));
  EXPECT_FALSE(collides(Op::Delete{"a"}, local("a0")));
  EXPECT_FALSE(collides(Op::Delete{"a/b.md"}, local("a")));
  EXPECT_FALSE(collides(Op::Delete{"A"}, inside));  // no case folding
}

TEST(ConflictDetectorTest, ExactPathsIncludingMoveSourcesAndTheBaseRule) {
  const PendingChange moved = local("y.md", "x.md");
  EXPECT_TRUE(collides(Op::Update{"x.md", std::nullopt, {}, true, {}}, moved));
  EXPECT_TRUE(collides(Op::Create{"y.md", "y", {}, false, {}}, moved));
  EXPECT_TRUE(collides(Op::Move{"q.md", "y.md"}, moved));
  EXPECT_TRUE(collides(Op::Delete{"x.md"}, moved));
  EXPECT_FALSE(collides(Op::Update{"X.md", std::nullopt, {}, true, {}}, moved));
  EXPECT_FALSE(collides(Op::Mkdir{"y.md/z", "z"}, moved));
  EXPECT_FALSE(ConflictDetector::remoteChangeCollides(Op::Delete{"x.md"}, moved, false));
}

TEST(ConflictDetectorTest, CollidingPendingHonoursBaseCursorsOrderAndDuplicates) {
  auto entry = [](std::string cursor, std::vector<Op> ops) {
    return FeedEntry{std::move(cursor), {}, {}, std::move(ops)};
  };
  const std::vector<FeedEntry> page{
      entry("c1", {Op::Delete{"a"}}),
      entry("c2", {Op::Update{"b.md", std::nullopt, {}, true, {}}, Op::Delete{"b.md"}}),
      entry("c3", {Op::Move{"d", "e"}}),
  };
  const std::vector<PendingChange> pending{
      local("d/x"),               // hit in c3
      local("a/x", {}, "c1"),     // based on c1: from its entry on, nothing counts
      local("b.md", {}, "c3"),    // tested up to c2 only; hit twice there, listed once
      local("d/y", {}, "c3"),     // the move of d is in its base entry
      local("a/y", {}, "other"),  // a base outside the page: tested against everything
      local("z"),
  };
  const auto colliding = ConflictResolver::collidingPending(page, pending);
  ASSERT_EQ(colliding.size(), 3u);
  EXPECT_EQ(colliding[0], pending[0]);
  EXPECT_EQ(colliding[1], pending[2]);
  EXPECT_EQ(colliding[2], pending[4]);
}

}  // namespace
}  // namespace synckit
