// Applying a change-feed page against SQLite driven by hand.
//
// BM_ApplyFeedCreates applies one page of 10,000 file creates (100 folders of
// 100 files) through Reconciler::reconcile on a fresh store.
// BM_ApplyFeedCreatesRaw writes the same rows, folders included, and the
// cursor with RawNodeWriter: the store's own statements prepared once and
// every value formatted in advance, in one transaction. The ratio of the two items_per_second
// figures is what reconciliation, the applier and the store add on top of SQLite.

#include <benchmark/benchmark.h>

#include <optional>
#include <string>
#include <vector>

#include "bench/raw_node_writer.h"
#include "synckit/engine/reconciler.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/temporary_directory.h"

namespace {

using synckit::FeedEntry;
using synckit::MetadataStore;
using synckit::Op;

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 100;
constexpr int kFiles = kFolders * kFilesPerFolder;

const synckit::Uuid kBrain = *synckit::Uuid::parse("0F3C2A7E-5B1D-4C9A-8E6F-2D4B6A8C0E12");
const synckit::Timestamp kStart = *synckit::Timestamp::parse("2025-03-01T09:30:12.345Z");

std::string folderName(int folder) { return "folder-" + std::to_string(folder); }
std::string fileName(int file) { return "note-" + std::to_string(file) + ".md"; }

// One entry per folder, each creating that folder's files.
const std::vector<FeedEntry>& page() {
  static const std::vector<FeedEntry> entries = [] {
    std::vector<FeedEntry> list;
    for (int folder = 0; folder < kFolders; ++folder) {
      FeedEntry entry{
          "c" + std::to_string(folder + 1),
          synckit::Timestamp::fromMilliseconds(kStart.millisecondsSinceEpoch() + folder),
          {},
          {}};
      for (int i = 0; i < kFilesPerFolder; ++i) {
        const std::string name = fileName(folder * kFilesPerFolder + i);
        entry.ops.push_back(
            Op::Create{folderName(folder) + "/" + name, name, {}, false, synckit::NodeKind::text});
      }
      list.push_back(std::move(entry));
    }
    return list;
  }();
  return entries;
}

std::unique_ptr<MetadataStore> freshStore(const synckit::testing::TemporaryDirectory& directory) {
  auto store = MetadataStore::open(directory / "sync.sqlite");
  store->upsertBrain(synckit::BrainRecord{kBrain, "notes", "Notes", std::nullopt});
  return store;
}

void BM_ApplyFeedCreates(benchmark::State& state) {
  const auto& entries = page();
  const std::optional<std::string> cursor = entries.back().cursor;
  const synckit::ConflictHandler resolve = [](const FeedEntry&, const Op&,
                                              const synckit::PendingChange&) {
    return synckit::ConflictResolution::remoteWins;
  };
  for (auto _ : state) {
    state.PauseTiming();
    {
      synckit::testing::TemporaryDirectory directory;
      auto store = freshStore(directory);
      state.ResumeTiming();
      auto result = synckit::Reconciler::reconcile(entries, kBrain, cursor, *store, resolve);
      state.PauseTiming();
      if (result.downloads.size() != kFiles) state.SkipWithError("downloads missing");
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}

std::vector<halvark::bench::RawNodeRow> rawRows() {
  std::vector<halvark::bench::RawNodeRow> rows;
  const std::string prefix = "node:" + kBrain.toString() + ":";
  for (const FeedEntry& entry : page()) {
    const std::string updatedAt = entry.at.toString();
    const std::string folder =
        entry.ops.front().path().substr(0, entry.ops.front().path().find('/'));
    rows.push_back({"dir:" + folder, folder, folder, "text", updatedAt, prefix + "dir:" + folder,
                    std::nullopt, std::nullopt, true, 0});
    for (const Op& op : entry.ops) {
      const auto& create = *op.as<Op::Create>();
      const std::string nodeId = "local:" + synckit::Uuid::random().toString();
      rows.push_back({nodeId, create.path, create.title, "text", updatedAt, prefix + nodeId,
                      std::nullopt, std::nullopt, false, 1});
    }
  }
  return rows;
}

void BM_ApplyFeedCreatesRaw(benchmark::State& state) {
  const std::string cursor = page().back().cursor;
  const std::vector<halvark::bench::RawNodeRow> rows = rawRows();

  for (auto _ : state) {
    state.PauseTiming();
    {
      synckit::testing::TemporaryDirectory directory;
      freshStore(directory).reset();  // the same schema and brain row, made by the store
      halvark::bench::RawNodeWriter writer(directory / "sync.sqlite", kBrain.toString());
      state.ResumeTiming();
      writer.begin();
      for (const auto& row : rows) writer.write(row);
      writer.setCursor(cursor);
      writer.commit();
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}

BENCHMARK(BM_ApplyFeedCreates)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ApplyFeedCreatesRaw)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
