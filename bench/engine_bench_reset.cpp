// Reset planning at the size of a large brain.
//
// BM_ResetUnchanged100k measures the common case of a reset that finds the
// store already matching: a read of the brain and a comparison per node.
// BM_ResetNew100k fills an empty brain; BM_ResetNew100kRaw writes the same
// node and change-log rows straight on the C API with the store's statement
// texts, prepared once, every value formatted in advance, in one
// transaction, so the ratio of the two is what planning and the store cost
// on top of SQLite.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "synckit/engine/reset_planner.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/store_sql.h"
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

// Every bound value already in its stored form.
struct RawRow {
  std::string nodeId, path, title, kind, updatedAt, identifier;
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;
  bool isDirectory;
  std::int64_t contentVersion;
};

void check(int result, sqlite3* db) {
  if (result != SQLITE_OK && result != SQLITE_DONE) {
    throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db));
  }
}

void BM_ResetNew100kRaw(benchmark::State& state) {
  const std::string brain = kBrain.toString();
  std::vector<RawRow> rows;
  rows.reserve(kNodes);
  for (const SnapshotNode& node : snapshot()) {
    rows.push_back({node.nodeId, node.path, node.title, std::string(synckit::toString(node.kind)),
                    node.updatedAt.toString(),
                    synckit::SyncItemIdentifier::node(kBrain, node.nodeId).string(), node.blobHash,
                    node.blobSize, node.isDirectory, node.isDirectory ? 0 : 1});
  }
  auto bindText = [](sqlite3_stmt* s, int i, const std::string& v) {
    sqlite3_bind_text(s, i, v.c_str(), -1, SQLITE_TRANSIENT);
  };

  for (auto _ : state) {
    state.PauseTiming();
    synckit::testing::TemporaryDirectory directory;
    const auto path = directory / "sync.sqlite";
    MetadataStore::open(path)->upsertBrain({kBrain, "big", "Big", std::nullopt});
    sqlite3* db = nullptr;
    check(sqlite3_open_v2(path.c_str(), &db,
                          SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                          nullptr),
          db);
    check(sqlite3_exec(db, "PRAGMA busy_timeout=5000", nullptr, nullptr, nullptr), db);
    check(sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr), db);
    check(sqlite3_exec(db, "PRAGMA foreign_keys=ON", nullptr, nullptr, nullptr), db);
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* log = nullptr;
    check(sqlite3_prepare_v2(db, synckit::StoreSQL::upsertNode.data(), -1, &upsert, nullptr), db);
    check(sqlite3_prepare_v2(db, synckit::StoreSQL::insertChange.data(), -1, &log, nullptr), db);
    state.ResumeTiming();

    check(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), db);
    for (const RawRow& row : rows) {
      bindText(upsert, 1, brain);
      bindText(upsert, 2, row.nodeId);
      bindText(upsert, 3, row.path);
      bindText(upsert, 4, row.title);
      sqlite3_bind_int64(upsert, 5, row.isDirectory ? 1 : 0);
      bindText(upsert, 6, row.kind);
      if (row.blobHash)
        bindText(upsert, 7, *row.blobHash);
      else
        sqlite3_bind_null(upsert, 7);
      if (row.blobSize)
        sqlite3_bind_int64(upsert, 8, *row.blobSize);
      else
        sqlite3_bind_null(upsert, 8);
      bindText(upsert, 9, row.updatedAt);
      sqlite3_bind_int64(upsert, 10, row.contentVersion);
      sqlite3_bind_int64(upsert, 11, 0);
      sqlite3_bind_null(upsert, 12);
      check(sqlite3_step(upsert), db);
      sqlite3_reset(upsert);

      bindText(log, 1, brain);
      bindText(log, 2, row.identifier);
      sqlite3_bind_int64(log, 3, 0);
      check(sqlite3_step(log), db);
      sqlite3_reset(log);
    }
    check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db);

    state.PauseTiming();
    sqlite3_finalize(upsert);
    sqlite3_finalize(log);
    sqlite3_close_v2(db);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kNodes);
}

BENCHMARK(BM_ResetUnchanged100k)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResetNew100k)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResetNew100kRaw)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
