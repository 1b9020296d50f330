#include "synckit/auth/brain_grants.h"

#include <gtest/gtest.h>

#include "synckit/store/sqlite_database.h"
#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

const Uuid kNotes = *Uuid::parse("6F1D3C2B-8A4E-4F10-9B7C-1E2D3F4A5B6C");
const Uuid kWork = *Uuid::parse("0A0B0C0D-1111-4222-8333-444455556666");
const Uuid kFresh = *Uuid::parse("F0E1D2C3-B4A5-4968-8776-655443322110");

Brain granted(const Uuid& brainId, std::string slug, std::string name,
              std::optional<std::string> headCursor = std::nullopt) {
  return Brain{brainId.toString(), "team-1", std::move(name), std::move(slug),
               std::move(headCursor)};
}

class BrainGrantsTest : public ::testing::Test {
 protected:
  // The raw change log after `anchor`: "+" or "-" (deleted) and the item.
  std::vector<std::string> log(std::int64_t anchor) {
    std::vector<std::string> rows;
    for (const SQLiteRow& row : observer.query(
             "SELECT item_identifier, deleted FROM changes_log WHERE anchor > ? ORDER BY anchor",
             {SQLiteValue::integer(anchor)}))
      rows.push_back((row.integer(1) != 0 ? "-" : "+") + row.string(0));
    return rows;
  }

  testing::TemporaryDirectory directory;
  std::unique_ptr<MetadataStore> store = MetadataStore::open(directory / "sync.sqlite");
  SQLiteDatabase observer{directory / "sync.sqlite"};
};

TEST_F(BrainGrantsTest, AddsRenamesAndRemovesBrainsLoggingEachVisibleChange) {
  store->upsertBrain(BrainRecord{kNotes, "notes", "Notes", std::string("c7")});
  store->upsertBrain(BrainRecord{kWork, "work", "Work", std::nullopt});
  for (auto [brainId, nodeId] : {std::pair{kNotes, "n1"}, {kNotes, "n2"}, {kWork, "w1"}}) {
    NodeRecord node;
    node.brainId = brainId;
    node.nodeId = node.path = node.title = nodeId;
    store->upsertNode(node);
  }
  const std::string notes = kNotes.toString();
  const std::string work = kWork.toString();
  const std::string fresh = kFresh.toString();

  // The same list, one id in lower case: nothing to report or log, cursor kept.
  std::int64_t anchor = store->currentAnchor();
  Brain lowerCase = granted(kNotes, "notes", "Notes");
  lowerCase.id = kNotes.toLowerString();
  EXPECT_FALSE(BrainGrants::apply({lowerCase, granted(kWork, "work", "Work")}, *store));
  EXPECT_EQ(log(anchor), std::vector<std::string>{});
  EXPECT_EQ(store->cursor(kNotes), "c7");

  // A new name is one entry for that brain, and so is a new slug below.
  anchor = store->currentAnchor();
  EXPECT_TRUE(BrainGrants::apply({lowerCase, granted(kWork, "work", "Work & Plans")}, *store));
  EXPECT_EQ(log(anchor), std::vector<std::string>{"+brain:" + work});

  // A brain left out loses its nodes, each logged, then itself; a new brain
  // starts without a cursor despite the head the server sent; an id that is
  // not a UUID is skipped.
  anchor = store->currentAnchor();
  EXPECT_TRUE(BrainGrants::apply({granted(kFresh, "fresh", "Fresh", "head-42"),
                                  Brain{"brain-7", "team-1", "Odd", "odd", std::nullopt},
                                  granted(kWork, "plans", "Work & Plans")},
                                 *store));
  EXPECT_EQ(log(anchor),
            (std::vector<std::string>{"+brain:" + fresh, "+brain:" + work, "-node:" + notes + ":n1",
                                      "-node:" + notes + ":n2", "-brain:" + notes}));
  EXPECT_EQ(store->brains(),
            (std::vector<BrainRecord>{{kFresh, "fresh", "Fresh", std::nullopt},
                                      {kWork, "plans", "Work & Plans", std::nullopt}}));
  EXPECT_TRUE(store->nodes(kNotes).empty());
  EXPECT_EQ(store->nodes(kWork).size(), 1u);

  // An empty list removes every brain.
  anchor = store->currentAnchor();
  EXPECT_TRUE(BrainGrants::apply({}, *store));
  EXPECT_EQ(log(anchor), (std::vector<std::string>{"-brain:" + fresh, "-node:" + work + ":w1",
                                                   "-brain:" + work}));
  EXPECT_TRUE(store->brains().empty());
}

}  // namespace
}  // namespace synckit
