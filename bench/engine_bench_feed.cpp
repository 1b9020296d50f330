// Applying a change-feed page against SQLite driven by hand.
//
// BM_ApplyFeedCreates applies one page of 10,000 file creates (100 folders of
// 100 files) through Reconciler::reconcile on a fresh store.
// BM_ApplyFeedCreatesRaw writes the same rows, folders included, with the
// store's own insert statements prepared once and every value formatted in
// advance, in one transaction. The ratio of the two items_per_second figures
// is what reconciliation, the applier and the store add on top of SQLite.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "synckit/engine/reconciler.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/store_sql.h"
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

// Every bound value already in its stored form.
struct RawRow {
  std::string nodeId, path, title, updatedAt, identifier;
  bool isDirectory;
  std::int64_t contentVersion;
};

std::vector<RawRow> rawRows() {
  std::vector<RawRow> rows;
  const std::string prefix = "node:" + kBrain.toString() + ":";
  for (const FeedEntry& entry : page()) {
    const std::string updatedAt = entry.at.toString();
    const std::string folder =
        entry.ops.front().path().substr(0, entry.ops.front().path().find('/'));
    rows.push_back({"dir:" + folder, folder, folder, updatedAt, prefix + "dir:" + folder, true, 0});
    for (const Op& op : entry.ops) {
      const auto& create = *op.as<Op::Create>();
      const std::string nodeId = "local:" + synckit::Uuid::random().toString();
      rows.push_back({nodeId, create.path, create.title, updatedAt, prefix + nodeId, false, 1});
    }
  }
  return rows;
}

void check(int result, sqlite3* db) {
  if (result != SQLITE_OK && result != SQLITE_DONE) {
    throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db));
  }
}

void BM_ApplyFeedCreatesRaw(benchmark::State& state) {
  const std::string brain = kBrain.toString();
  const std::string cursor = page().back().cursor;
  const std::vector<RawRow> rows = rawRows();
  auto bindText = [](sqlite3_stmt* s, int i, const std::string& v) {
    sqlite3_bind_text(s, i, v.c_str(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
  };

  for (auto _ : state) {
    state.PauseTiming();
    synckit::testing::TemporaryDirectory directory;
    freshStore(directory).reset();  // the same schema and brain row, made by the store
    const auto path = directory / "sync.sqlite";
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
    sqlite3_stmt* setCursor = nullptr;
    check(sqlite3_prepare_v2(db, synckit::StoreSQL::upsertNode.data(), -1, &upsert, nullptr), db);
    check(sqlite3_prepare_v2(db, synckit::StoreSQL::insertChange.data(), -1, &log, nullptr), db);
    check(sqlite3_prepare_v2(db, synckit::StoreSQL::updateCursor.data(), -1, &setCursor, nullptr),
          db);
    state.ResumeTiming();

    check(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), db);
    for (const RawRow& row : rows) {
      bindText(upsert, 1, brain);
      bindText(upsert, 2, row.nodeId);
      bindText(upsert, 3, row.path);
      bindText(upsert, 4, row.title);
      sqlite3_bind_int64(upsert, 5, row.isDirectory ? 1 : 0);
      sqlite3_bind_text(upsert, 6, "text", 4, SQLITE_STATIC);
      sqlite3_bind_null(upsert, 7);
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
    bindText(setCursor, 1, cursor);
    bindText(setCursor, 2, brain);
    check(sqlite3_step(setCursor), db);
    sqlite3_reset(setCursor);
    check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db);

    state.PauseTiming();
    sqlite3_finalize(upsert);
    sqlite3_finalize(log);
    sqlite3_finalize(setCursor);
    sqlite3_close_v2(db);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}

BENCHMARK(BM_ApplyFeedCreates)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ApplyFeedCreatesRaw)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
