#include "synckit/engine/brain_sync_status.h"

#include <gtest/gtest.h>

#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

using State = BrainSyncStatus::State;

TEST(BrainSyncStatusTest, EachBrainGetsTheFirstStateThatApplies) {
  testing::TemporaryDirectory directory;
  auto store = MetadataStore::open(directory / "sync.sqlite");
  EXPECT_TRUE(statuses(*store, {}, {}, {}).empty());

  const Uuid busy = *Uuid::parse("00000000-0000-4000-8000-000000000005");
  const Uuid failed = *Uuid::parse("00000000-0000-4000-8000-000000000004");
  const Uuid twoErrors = *Uuid::parse("00000000-0000-4000-8000-000000000003");
  const Uuid oneError = *Uuid::parse("00000000-0000-4000-8000-000000000002");
  const Uuid quiet = *Uuid::parse("00000000-0000-4000-8000-000000000001");
  // Slugs order the lines; "same" twice falls back to the id.
  store->upsertBrain(BrainRecord{busy, "a", "Busy", std::nullopt});
  store->upsertBrain(BrainRecord{failed, "b", "Failed", std::nullopt});
  store->upsertBrain(BrainRecord{twoErrors, "same", "Two", std::nullopt});
  store->upsertBrain(BrainRecord{oneError, "same", "One", std::nullopt});
  store->upsertBrain(BrainRecord{quiet, "z", "Quiet", std::nullopt});
  int next = 0;
  auto put = [&](const Uuid& brainId, std::optional<std::string> uploadError) {
    NodeRecord node;
    node.brainId = brainId;
    node.nodeId = "n" + std::to_string(++next);
    node.path = node.nodeId + ".md";
    node.uploadError = std::move(uploadError);
    store->upsertNode(node);
  };
  for (const Uuid& brainId : {busy, failed, twoErrors, twoErrors}) put(brainId, "HTTP 500");
  put(oneError, "HTTP 413");
  put(oneError, std::nullopt);
  put(quiet, std::nullopt);

  const Timestamp synced = *Timestamp::parse("2025-03-01T09:30:12.345Z");
  auto lines =
      statuses(*store, {busy}, {{busy, "Offline"}, {failed, "The server refused the change."}},
               {{twoErrors, synced}, {busy, synced}});

  EXPECT_EQ(lines,
            (std::vector<BrainSyncStatus>{
                {busy, "Busy", State::syncing(), synced, 1},
                {failed, "Failed", State::error("The server refused the change."), std::nullopt, 1},
                {oneError, "One", State::error("1 upload error"), std::nullopt, 1},
                {twoErrors, "Two", State::error("2 upload errors"), synced, 2},
                {quiet, "Quiet", State::idle(), std::nullopt, 0},
            }));
}

}  // namespace
}  // namespace synckit
