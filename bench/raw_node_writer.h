#pragma once

// The baseline the store's write benchmarks are measured against: node and
// change-log rows written straight on the SQLite C API with the store's own
// statement texts, prepared once, every value formatted in advance.

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "synckit/store/store_sql.h"

namespace halvark::bench {

// One node row and its change-log row, every bound value in its stored form.
struct RawNodeRow {
  std::string nodeId, path, title, kind, updatedAt, identifier;
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;
  bool isDirectory = false;
  std::int64_t contentVersion = 0;
};

// A connection to a store file that MetadataStore already created (schema
// and brain row), set up as the store sets up its own. One thread.
class RawNodeWriter {
 public:
  RawNodeWriter(const std::filesystem::path& file, std::string brainId)
      : brain_(std::move(brainId)) {
    check(sqlite3_open_v2(file.c_str(), &db_,
                          SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                          nullptr));
    exec("PRAGMA busy_timeout=5000");
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA foreign_keys=ON");
    upsert_ = prepare(synckit::StoreSQL::upsertNode);
    log_ = prepare(synckit::StoreSQL::insertChange);
    cursor_ = prepare(synckit::StoreSQL::updateCursor);
  }
  ~RawNodeWriter() {
    sqlite3_finalize(upsert_);
    sqlite3_finalize(log_);
    sqlite3_finalize(cursor_);
    sqlite3_close_v2(db_);
  }
  RawNodeWriter(const RawNodeWriter&) = delete;
  RawNodeWriter& operator=(const RawNodeWriter&) = delete;

  void begin() { exec("BEGIN IMMEDIATE"); }
  void commit() { exec("COMMIT"); }

  void write(const RawNodeRow& row) {
    bind(upsert_, 1, brain_);
    bind(upsert_, 2, row.nodeId);
    bind(upsert_, 3, row.path);
    bind(upsert_, 4, row.title);
    sqlite3_bind_int64(upsert_, 5, row.isDirectory ? 1 : 0);
    bind(upsert_, 6, row.kind);
    if (row.blobHash) {
      bind(upsert_, 7, *row.blobHash);
    } else {
      sqlite3_bind_null(upsert_, 7);
    }
    if (row.blobSize) {
      sqlite3_bind_int64(upsert_, 8, *row.blobSize);
    } else {
      sqlite3_bind_null(upsert_, 8);
    }
    bind(upsert_, 9, row.updatedAt);
    sqlite3_bind_int64(upsert_, 10, row.contentVersion);
    sqlite3_bind_int64(upsert_, 11, 0);
    sqlite3_bind_null(upsert_, 12);
    step(upsert_);

    bind(log_, 1, brain_);
    bind(log_, 2, row.identifier);
    sqlite3_bind_int64(log_, 3, 0);
    step(log_);
  }

  void setCursor(const std::string& cursor) {
    bind(cursor_, 1, cursor);
    bind(cursor_, 2, brain_);
    step(cursor_);
  }

 private:
  void check(int result) {
    if (result != SQLITE_OK && result != SQLITE_DONE) {
      throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_));
    }
  }
  void exec(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }
  sqlite3_stmt* prepare(std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr));
    return statement;
  }
  static void bind(sqlite3_stmt* statement, int index, const std::string& value) {
    sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                      SQLITE_TRANSIENT);
  }
  void step(sqlite3_stmt* statement) {
    int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    check(result);
  }

  std::string brain_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* log_ = nullptr;
  sqlite3_stmt* cursor_ = nullptr;
};

}  // namespace halvark::bench
