// Reset planning at the size of a large brain.
//
// BM_ResetUnchanged100k measures the common case of a reset that finds the
// store already matching: a read of the brain and a comparison per node.
// BM_ResetNew100k fills an empty brain; BM_ResetNew100kRaw writes the same
// node and change-log rows and the cursor straight on the C API
// (RawNodeWriter) in one transaction, so the ratio of the two is what
// planning and the store cost on top of SQLite.

#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/raw_node_writer.h"
#include "synckit/engine/reset_planner.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/temporary_directory.h"

namespace {

using synckit::MetadataStore;
using synckit::ResetPlan;
namespace ResetPlanner = synckit::ResetPlanner;
using synckit::SnapshotNode;

constexpr int kNodes = 100'000;
constexpr int kFolders = 1'000;

const synckit::Uuid kBrain = *synckit::Uuid::parse("3D5E7F90-1A2B-4C3D-8E4F-506172839A4B");

// kFolders folders followed by files spread over them, half texts and half
// blobs, as a server snapshot lists them.
std::vector<SnapshotNode> makeSnapshot() {
  std::vector<SnapshotNode> nodes;
  nodes.reserve(kNodes);
  const auto start =
      synckit::Timestamp::parse("2025-03-01T09:30:12.345Z")->millisecondsSinceEpoch();
  for (int i = 0; i < kNodes; ++i) {
    SnapshotNode node;
    node.nodeId = "n_" + std::to_string(i);
    if (i < kFolders) {
      node.title = "folder-" + std::to_string(i);
      node.path = node.title;
      node.isDirectory = true;
    } else {
      node.title = "note-" + std::to_string(i) + ".md";
      node.path = "folder-" + std::to_string(i % kFolders) + "/" + node.title;
      if (i % 2 == 0) {
        node.kind = synckit::NodeKind::blob;
        node.blobHash = std::string(64, "0123456789abcdef"[i % 16]);
        node.blobSize = 1000 + i;
      }
    }
    node.updatedAt = synckit::Timestamp::fromMilliseconds(start + i);
    nodes.push_back(std::move(node));
  }
  return nodes;
}

const std::vector<SnapshotNode>& snapshot() {
  static const std::vector<SnapshotNode> nodes = makeSnapshot();
  return nodes;
}

struct BrainStore {
  synckit::testing::TemporaryDirectory directory;
  std::unique_ptr<MetadataStore> store = MetadataStore::open(directory / "sync.sqlite");

  BrainStore() { store->upsertBrain({kBrain, "big", "Big", std::nullopt}); }

  ResetPlan reset(const std::string& cursor) {
    return store->writeTransaction(
        [&] { return ResetPlanner::plan(*store, kBrain, cursor, snapshot()); });
  }
};

void BM_ResetUnchanged100k(benchmark::State& state) {
  BrainStore brain;
  brain.reset("c0");
  for (auto _ : state) {
    ResetPlan plan = brain.reset("c1");
    if (!plan.isEmpty()) state.SkipWithError("an identical snapshot changed the store");
    benchmark::DoNotOptimize(plan);
  }
  state.SetItemsProcessed(state.iterations() * kNodes);
}

void BM_ResetNew100k(benchmark::State& state) {
  std::size_t downloads = 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      BrainStore brain;
      state.ResumeTiming();
      ResetPlan plan = brain.reset("c1");
      state.PauseTiming();
      downloads = plan.downloads.size();
    }
    state.ResumeTiming();
  }
  if (downloads != kNodes - kFolders) state.SkipWithError("not every file was queued");
  state.SetItemsProcessed(state.iterations() * kNodes);
}

void BM_ResetNew100kRaw(benchmark::State& state) {
  std::vector<halvark::bench::RawNodeRow> rows;
  rows.reserve(kNodes);
  for (const SnapshotNode& node : snapshot()) {
    rows.push_back({node.nodeId, node.path, node.title, std::string(synckit::toString(node.kind)),
                    node.updatedAt.toString(),
                    synckit::SyncItemIdentifier::node(kBrain, node.nodeId).string(), node.blobHash,
                    node.blobSize, node.isDirectory, node.isDirectory ? 0 : 1});
  }

  for (auto _ : state) {
    state.PauseTiming();
    {
      BrainStore brain;  // the same schema and brain row, made by the store
      brain.store.reset();
      halvark::bench::RawNodeWriter writer(brain.directory / "sync.sqlite", kBrain.toString());
      state.ResumeTiming();
      writer.begin();
      for (const auto& row : rows) writer.write(row);
      writer.setCursor("c1");
      writer.commit();
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kNodes);
}

BENCHMARK(BM_ResetUnchanged100k)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResetNew100k)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResetNew100kRaw)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
