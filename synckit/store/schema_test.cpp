#include "synckit/store/schema.h"

#include <gtest/gtest.h>

#include <set>

#include "synckit/store/sqlite_database.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

// The first released layout, written out by hand so that the upgrade path is
// tested against a file the current code did not make.
void writeVersion1(SQLiteDatabase& db) {
  db.execute(
      "CREATE TABLE brains (brain_id TEXT PRIMARY KEY, slug TEXT NOT NULL, name TEXT NOT NULL, "
      "cursor TEXT)");
  db.execute(
      "CREATE TABLE nodes (\n  brain_id TEXT NOT NULL, node_id TEXT NOT NULL, path TEXT NOT NULL, "
      "title TEXT NOT NULL,\n  is_directory INTEGER NOT NULL, kind TEXT NOT NULL, blob_hash TEXT, "
      "blob_size INTEGER,\n  updated_at TEXT NOT NULL, content_version INTEGER NOT NULL DEFAULT "
      "0,\n  local_only INTEGER NOT NULL DEFAULT 0, upload_error TEXT,\n  PRIMARY KEY (brain_id, "
      "node_id)\n)");
  db.execute("CREATE UNIQUE INDEX nodes_by_path ON nodes (brain_id, path)");
  db.execute(
      "CREATE TABLE changes_log (anchor INTEGER PRIMARY KEY AUTOINCREMENT, brain_id TEXT NOT NULL, "
      "item_identifier TEXT NOT NULL, deleted INTEGER NOT NULL)");
  db.execute(
      "CREATE TABLE pending_changes (id INTEGER PRIMARY KEY AUTOINCREMENT, brain_id TEXT NOT NULL, "
      "node_id TEXT, change_kind TEXT NOT NULL, path TEXT NOT NULL, from_path TEXT, base_cursor "
      "TEXT, created_at TEXT NOT NULL)");
  db.execute("CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL)");
  db.execute("PRAGMA user_version = 1");
}

std::set<std::string> schemaObjects(SQLiteDatabase& db) {
  std::set<std::string> names;
  for (const auto& row :
       db.query("SELECT type, name FROM sqlite_master WHERE name NOT LIKE 'sqlite_%'")) {
    names.insert(row.string(0) + " " + row.string(1));
  }
  return names;
}

std::int64_t schemaCookie(SQLiteDatabase& db) {
  return db.query("PRAGMA schema_version").at(0).integer(0);
}

const std::set<std::string> kVersion2Objects = {
    "table brains",          "table nodes", "index nodes_by_path", "table changes_log",
    "table pending_changes", "table meta",  "table own_writes",    "index own_writes_by_path"};

class SchemaTest : public ::testing::Test {
 protected:
  testing::TemporaryDirectory directory;
  SQLiteDatabase db{directory / "sync.sqlite"};
};

TEST_F(SchemaTest, NewFileReachesTheCurrentVersionAndStaysThere) {
  EXPECT_EQ(Schema::version(db), 0);
  Schema::migrate(db);
  EXPECT_EQ(Schema::version(db), 2);
  EXPECT_EQ(schemaObjects(db), kVersion2Objects);
  EXPECT_EQ(db.transactionDepth(), 0);

  const auto cookie = schemaCookie(db);
  Schema::migrate(db);
  SQLiteDatabase second(directory / "sync.sqlite");
  Schema::migrate(second);
  EXPECT_EQ(schemaCookie(db), cookie);  // no DDL ran

  const char* insert =
      "INSERT INTO nodes (brain_id, node_id, path, title, is_directory, kind, updated_at) "
      "VALUES ('B', ?, 'same/path', 't', 0, 'text', '2025-03-01T09:30:12.345Z')";
  db.execute(insert, {SQLiteValue::text("n1")});
  EXPECT_THROW(db.execute(insert, {SQLiteValue::text("n2")}), SQLiteError);
}

TEST_F(SchemaTest, Version1FileGainsOnlyOwnWrites) {
  writeVersion1(db);
  db.execute("INSERT INTO meta (key, value) VALUES ('device_id', 'D1')");
  db.execute(
      "INSERT INTO changes_log (brain_id, item_identifier, deleted) VALUES ('B', 'root', 0)");

  Schema::migrate(db);
  EXPECT_EQ(Schema::version(db), 2);
  EXPECT_EQ(schemaObjects(db), kVersion2Objects);
  EXPECT_EQ(db.query("SELECT value FROM meta WHERE key = 'device_id'").at(0).string(0), "D1");
  EXPECT_EQ(db.query("SELECT COUNT(*) FROM changes_log").at(0).integer(0), 1);
}

TEST_F(SchemaTest, NewerFileIsRefusedUntouched) {
  db.execute("PRAGMA user_version = 3");
  const auto cookie = schemaCookie(db);
  const auto error = testing::thrownBy<SQLiteError>([&] { Schema::migrate(db); });
  EXPECT_EQ(error.description(),
            "SQLite error 17: database schema version 3 is newer than supported version 2");
  EXPECT_EQ(Schema::version(db), 3);
  EXPECT_TRUE(schemaObjects(db).empty());
  EXPECT_EQ(schemaCookie(db), cookie);
  EXPECT_EQ(db.transactionDepth(), 0);
}

TEST_F(SchemaTest, FailureHalfwayRollsBackTheWholeUpgrade) {
  writeVersion1(db);
  // A stray index of the same name makes the second version-2 step fail
  // after the first one has run.
  db.execute("CREATE INDEX own_writes_by_path ON meta (value)");
  EXPECT_EQ(testing::thrownBy<SQLiteError>([&] { Schema::migrate(db); }).sql(),
            "CREATE INDEX own_writes_by_path ON own_writes (brain_id, path)");
  EXPECT_EQ(Schema::version(db), 1);
  EXPECT_FALSE(schemaObjects(db).contains("table own_writes"));
}

}  // namespace
}  // namespace synckit
