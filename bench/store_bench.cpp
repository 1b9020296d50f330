// Throughput of the metadata store against SQLite driven by hand.
//
// BM_RawSQLiteBaseline runs the store's own two insert statements, as
// BM_UpsertNodeAndRecordChange does, straight on the C API (RawNodeWriter):
// prepared once and every value formatted in advance, so the ratio of the two
// items_per_second figures is the store's own overhead.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/raw_node_writer.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/temporary_directory.h"

namespace {

using synckit::MetadataStore;
using synckit::NodeRecord;
using synckit::SyncItemIdentifier;

constexpr int kRows = 100'000;

const synckit::Uuid kBrain = *synckit::Uuid::parse("0F3C2A7E-5B1D-4C9A-8E6F-2D4B6A8C0E12");

std::vector<NodeRecord> makeNodes(int count) {
  std::vector<NodeRecord> nodes;
  nodes.reserve(static_cast<std::size_t>(count));
  const auto start =
      synckit::Timestamp::parse("2025-03-01T09:30:12.345Z")->millisecondsSinceEpoch();
  for (int i = 0; i < count; ++i) {
    NodeRecord node;
    node.brainId = kBrain;
    node.nodeId = "n_" + std::to_string(i);
    node.title = "note-" + std::to_string(i) + ".md";
    node.path = "folder-" + std::to_string(i / 100) + "/" + node.title;
    node.kind = i % 2 == 0 ? synckit::NodeKind::text : synckit::NodeKind::blob;
    if (node.kind == synckit::NodeKind::blob) {
      node.blobHash = std::string(64, "0123456789abcdef"[i % 16]);
      node.blobSize = 1000 + i;
    }
    node.updatedAt = synckit::Timestamp::fromMilliseconds(start + i);
    node.contentVersion = 1;
    nodes.push_back(std::move(node));
  }
  return nodes;
}

const std::vector<NodeRecord>& sampleNodes() {
  static const std::vector<NodeRecord> nodes = makeNodes(kRows);
  return nodes;
}

void BM_UpsertNodeAndRecordChange(benchmark::State& state) {
  const auto& nodes = sampleNodes();
  for (auto _ : state) {
    state.PauseTiming();
    {
      synckit::testing::TemporaryDirectory directory;
      auto store = MetadataStore::open(directory / "sync.sqlite");
      state.ResumeTiming();
      store->writeTransaction([&] {
        for (const NodeRecord& node : nodes) {
          store->upsertNode(node);
          store->recordChange(SyncItemIdentifier::node(node.brainId, node.nodeId), false);
        }
      });
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_RawSQLiteBaseline(benchmark::State& state) {
  std::vector<halvark::bench::RawNodeRow> rows;
  rows.reserve(kRows);
  for (const NodeRecord& node : sampleNodes()) {
    rows.push_back({node.nodeId, node.path, node.title, std::string(synckit::toString(node.kind)),
                    node.updatedAt.toString(),
                    SyncItemIdentifier::node(node.brainId, node.nodeId).string(), node.blobHash,
                    node.blobSize, node.isDirectory, node.contentVersion});
  }

  for (auto _ : state) {
    state.PauseTiming();
    {
      synckit::testing::TemporaryDirectory directory;
      MetadataStore::open(directory / "sync.sqlite").reset();  // the same schema, made by the store
      halvark::bench::RawNodeWriter writer(directory / "sync.sqlite", kBrain.toString());
      state.ResumeTiming();
      writer.begin();
      for (const auto& row : rows) writer.write(row);
      writer.commit();
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

// A store holding one brain of kRows nodes, built once for the read benchmarks.
struct FilledStore {
  synckit::testing::TemporaryDirectory directory;
  std::unique_ptr<MetadataStore> store = MetadataStore::open(directory / "sync.sqlite");

  FilledStore() {
    store->writeTransaction([&] {
      for (const NodeRecord& node : sampleNodes()) store->upsertNode(node);
    });
  }
};

void BM_NodeByPath(benchmark::State& state) {
  FilledStore filled;
  const auto& nodes = sampleNodes();
  std::size_t next = 0;
  for (auto _ : state) {
    auto node = filled.store->nodeAtPath(kBrain, nodes[next].path);
    benchmark::DoNotOptimize(node);
    next = (next + 7919) % nodes.size();  // a stride that visits every row
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_ChangesSince(benchmark::State& state) {
  // Four log rows per node, the last of every tenth node a deletion, so the
  // collapse keeps a quarter of the rows and looks up most of those.
  FilledStore filled;
  const auto& nodes = sampleNodes();
  const std::size_t distinct = kRows / 4;
  filled.store->writeTransaction([&] {
    for (int round = 0; round < 4; ++round) {
      for (std::size_t i = 0; i < distinct; ++i) {
        bool deleted = round == 3 && i % 10 == 0;
        filled.store->recordChange(SyncItemIdentifier::node(kBrain, nodes[i].nodeId), deleted);
      }
    }
  });
  for (auto _ : state) {
    auto set = filled.store->changes(0);
    benchmark::DoNotOptimize(set);
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

BENCHMARK(BM_UpsertNodeAndRecordChange)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawSQLiteBaseline)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NodeByPath);
BENCHMARK(BM_ChangesSince)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
