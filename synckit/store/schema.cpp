#include "synckit/store/schema.h"

#include <array>
#include <string>

#include "synckit/store/sqlite_database.h"

namespace synckit::Schema {
namespace {

// The file format is persistent: these texts never change once shipped; a new
// version appends its own steps.
constexpr std::array<const char*, 6> kVersion1 = {
    "CREATE TABLE brains (brain_id TEXT PRIMARY KEY, slug TEXT NOT NULL, name TEXT NOT NULL, "
    "cursor TEXT)",
    "CREATE TABLE nodes (\n"
    "  brain_id TEXT NOT NULL, node_id TEXT NOT NULL, path TEXT NOT NULL, title TEXT NOT NULL,\n"
    "  is_directory INTEGER NOT NULL, kind TEXT NOT NULL, blob_hash TEXT, blob_size INTEGER,\n"
    "  updated_at TEXT NOT NULL, content_version INTEGER NOT NULL DEFAULT 0,\n"
    "  local_only INTEGER NOT NULL DEFAULT 0, upload_error TEXT,\n"
    "  PRIMARY KEY (brain_id, node_id)\n"
    ")",
    "CREATE UNIQUE INDEX nodes_by_path ON nodes (brain_id, path)",
    "CREATE TABLE changes_log (anchor INTEGER PRIMARY KEY AUTOINCREMENT, brain_id TEXT NOT NULL, "
    "item_identifier TEXT NOT NULL, deleted INTEGER NOT NULL)",
    "CREATE TABLE pending_changes (id INTEGER PRIMARY KEY AUTOINCREMENT, brain_id TEXT NOT NULL, "
    "node_id TEXT, change_kind TEXT NOT NULL, path TEXT NOT NULL, from_path TEXT, base_cursor "
    "TEXT, created_at TEXT NOT NULL)",
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL)",
};

constexpr std::array<const char*, 2> kVersion2 = {
    "CREATE TABLE own_writes (id INTEGER PRIMARY KEY AUTOINCREMENT, brain_id TEXT NOT NULL, path "
    "TEXT NOT NULL)",
    "CREATE INDEX own_writes_by_path ON own_writes (brain_id, path)",
};

}  // namespace

std::int64_t version(SQLiteDatabase& database) {
  auto rows = database.query("PRAGMA user_version");
  if (rows.empty()) return 0;
  return rows.front().optionalInteger(0).value_or(0);
}

void migrate(SQLiteDatabase& database) {
  database.transaction(true, [&] {
    const std::int64_t found = version(database);
    if (found > currentVersion) {
      throw SQLiteError(17,
                        "database schema version " + std::to_string(found) +
                            " is newer than supported version " + std::to_string(currentVersion),
                        std::nullopt);
    }
    if (found < 1) {
      for (const char* statement : kVersion1) database.execute(statement);
      database.execute("PRAGMA user_version = 1");
    }
    if (found == 2) return;
    for (const char* statement : kVersion2) database.execute(statement);
    database.execute("PRAGMA user_version = 2");
  });
}

}  // namespace synckit::Schema
