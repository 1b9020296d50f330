#include "synckit/store/sqlite_database.h"

#include <gtest/gtest.h>

#include <array>
#include <span>
#include <stdexcept>
#include <string>

#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

const auto errorOf = [](auto&& body) { return testing::thrownBy<SQLiteError>(body); };

class SQLiteDatabaseTest : public ::testing::Test {
 protected:
  testing::TemporaryDirectory directory;
  std::filesystem::path file = directory / "test.sqlite";
  SQLiteDatabase db{file};

  std::int64_t count(const std::string& table) {
    return db.query("SELECT COUNT(*) FROM " + table).at(0).integer(0);
  }
};

TEST_F(SQLiteDatabaseTest, OpensWithSharedAccessSettings) {
  EXPECT_EQ(db.query("PRAGMA journal_mode").at(0).string(0), "wal");
  EXPECT_EQ(db.query("PRAGMA busy_timeout").at(0).integer(0), 5000);
  EXPECT_EQ(db.query("PRAGMA foreign_keys").at(0).integer(0), 1);

  auto missing = directory / "no" / "such" / "dir" / "x.sqlite";
  SQLiteError error = errorOf([&] { SQLiteDatabase other(missing); });
  EXPECT_EQ(error, SQLiteError(14, "unable to open database file", std::nullopt));
  EXPECT_EQ(error.description(), "SQLite error 14: unable to open database file");
  EXPECT_FALSE(std::filesystem::exists(missing.parent_path()));
}

TEST_F(SQLiteDatabaseTest, ConvertsValuesBothWays) {
  EXPECT_TRUE(db.query("SELECT 1 WHERE 0").empty());

  auto row = db.query("SELECT 1.5, NULL, '', x'', -9223372036854775808, 'h\xC3\xA9'").at(0);
  EXPECT_EQ(row.values, (std::vector<SQLiteValue>{SQLiteValue::null(), SQLiteValue::null(),
                                                  SQLiteValue::text(""), SQLiteValue::blob({}),
                                                  SQLiteValue::integer(INT64_MIN),
                                                  SQLiteValue::text("h\xC3\xA9")}));

  db.execute("CREATE TABLE v (a, b, c, d)");
  db.execute("INSERT INTO v VALUES (?, ?, ?, ?)",
             {SQLiteValue::blob({}), SQLiteValue::blob({0, 1, 255}), SQLiteValue::optionalText({}),
              SQLiteValue::boolean(true)});
  auto stored = db.query("SELECT typeof(a), length(a), typeof(b), typeof(c), a, b, c, d FROM v");
  ASSERT_EQ(stored.size(), 1u);
  const SQLiteRow& r = stored[0];
  // An empty buffer must stay a blob, not turn into NULL.
  EXPECT_EQ(r.string(0), "blob");
  EXPECT_EQ(r.integer(1), 0);
  EXPECT_EQ(r.string(2), "blob");
  EXPECT_EQ(r.string(3), "null");
  EXPECT_EQ(r.data(4), Bytes{});
  EXPECT_EQ(r.data(5), (Bytes{0, 1, 255}));
  EXPECT_TRUE(r.isNull(6));
  EXPECT_EQ(r.integer(7), 1);

  // Accessors of the wrong kind read as the neutral value.
  EXPECT_EQ(r.integer(0), 0);
  EXPECT_EQ(r.optionalInteger(0), std::nullopt);
  EXPECT_EQ(r.string(7), "");
  EXPECT_EQ(r.optionalString(6), std::nullopt);
  EXPECT_EQ(r.data(6), std::nullopt);
  EXPECT_FALSE(r.isNull(4));
}

TEST_F(SQLiteDatabaseTest, ReusedStatementsStartClean) {
  EXPECT_EQ(db.query("SELECT ?", {SQLiteValue::integer(7)}).at(0).integer(0), 7);
  // Same text again without bindings: the earlier 7 must not linger.
  EXPECT_TRUE(db.query("SELECT ?").at(0).isNull(0));

  db.execute("CREATE TABLE t (id INTEGER PRIMARY KEY)");
  const std::string insert = "INSERT INTO t (id) VALUES (?)";
  db.execute(insert, {SQLiteValue::integer(1)});
  EXPECT_EQ(db.lastInsertRowID(), 1);
  SQLiteError duplicate = errorOf([&] { db.execute(insert, {SQLiteValue::integer(1)}); });
  EXPECT_EQ(duplicate, SQLiteError(19, "UNIQUE constraint failed: t.id", insert));
  EXPECT_EQ(duplicate.description(),
            "SQLite error 19: UNIQUE constraint failed: t.id [INSERT INTO t (id) VALUES (?)]");
  db.execute(insert, {SQLiteValue::integer(2)});
  EXPECT_EQ(db.changes(), 1);
  EXPECT_EQ(db.lastInsertRowID(), 2);

  SQLiteError syntax = errorOf([&] { db.query("SELEC 1"); });
  EXPECT_EQ(syntax, SQLiteError(1, "near \"SELEC\": syntax error", "SELEC 1"));
  SQLiteError range = errorOf([&] {
    db.execute("SELECT ?", {SQLiteValue::null(), SQLiteValue::null()});
  });
  EXPECT_EQ(range.code(), 25);
  EXPECT_EQ(range.sql(), "SELECT ?");
}

TEST_F(SQLiteDatabaseTest, NestedTransactionsCommitOnceAtTheOutermostLevel) {
  db.execute("CREATE TABLE t (v INTEGER)");
  SQLiteDatabase observer(file);
  auto observed = [&] { return observer.query("SELECT COUNT(*) FROM t").at(0).integer(0); };

  int result = db.transaction(true, [&] {
    EXPECT_EQ(db.transactionDepth(), 1);
    db.transaction(false, [&] {
      EXPECT_EQ(db.transactionDepth(), 2);
      db.execute("INSERT INTO t VALUES (1)");
    });
    EXPECT_EQ(db.transactionDepth(), 1);
    EXPECT_EQ(observed(), 0);  // the inner level did not commit
    return 42;
  });
  EXPECT_EQ(result, 42);
  EXPECT_EQ(db.transactionDepth(), 0);
  EXPECT_EQ(observed(), 1);

  // An error caught inside does not roll back on its own.
  db.transaction(true, [&] {
    db.execute("INSERT INTO t VALUES (2)");
    try {
      db.transaction(true, [&] {
        db.execute("INSERT INTO t VALUES (3)");
        throw std::runtime_error("inner");
      });
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(db.transactionDepth(), 1);
  });
  EXPECT_EQ(observed(), 3);

  EXPECT_THROW(db.transaction(true,
                              [&] {
                                db.execute("INSERT INTO t VALUES (4)");
                                db.transaction(true, [&] {
                                  db.transaction(true, [&] {
                                    EXPECT_EQ(db.transactionDepth(), 3);
                                    db.execute("INSERT INTO t VALUES (5)");
                                    throw std::runtime_error("deep");
                                  });
                                });
                              }),
               std::runtime_error);
  EXPECT_EQ(db.transactionDepth(), 0);
  EXPECT_EQ(count("t"), 3);
  EXPECT_EQ(observed(), 3);
  db.transaction(true, [&] { db.execute("INSERT INTO t VALUES (6)"); });
  EXPECT_EQ(observed(), 4);
}

TEST_F(SQLiteDatabaseTest, FailedCommitIsReportedAsCommit) {
  db.execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
  db.execute(
      "CREATE TABLE child (parent_id INTEGER REFERENCES parent(id) DEFERRABLE INITIALLY DEFERRED)");
  SQLiteError error =
      errorOf([&] { db.transaction(true, [&] { db.execute("INSERT INTO child VALUES (99)"); }); });
  EXPECT_EQ(error, SQLiteError(19, "FOREIGN KEY constraint failed", "COMMIT"));
  EXPECT_EQ(db.transactionDepth(), 0);

  // SQLite keeps the transaction open after this failure; left so, every later
  // BEGIN would fail and later writes would wait for a COMMIT that never comes.
  EXPECT_EQ(count("child"), 0);
  db.transaction(true, [&] { db.execute("INSERT INTO parent VALUES (1)"); });
  SQLiteDatabase other{file};
  EXPECT_EQ(other.query("SELECT COUNT(*) FROM parent").at(0).integer(0), 1);
}

TEST_F(SQLiteDatabaseTest, ArgumentsBindAsTheirValuesDo) {
  db.execute("CREATE TABLE v (a, b, c, d)");
  std::string text = std::string("before\0after", 12);
  const std::array arguments{SQLiteArgument::text(text), SQLiteArgument::text(std::string_view()),
                             SQLiteArgument::optionalText(std::nullopt),
                             SQLiteArgument::boolean(true)};
  db.execute("INSERT INTO v VALUES (?, ?, ?, ?)", arguments);
  text.assign(12, 'x');  // the row holds its own copy
  db.execute("INSERT INTO v VALUES (?, ?, ?, ?)",
             {SQLiteValue::text(std::string("before\0after", 12)), SQLiteValue::text(""),
              SQLiteValue::null(), SQLiteValue::integer(1)});
  auto rows = db.query("SELECT a, typeof(b), b, typeof(c), d FROM v");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].values, rows[1].values);
  EXPECT_EQ(rows[0].string(0), "before");
  EXPECT_EQ(rows[0].string(1), "text");

  // A text reused at the same address is still told apart by its content.
  std::string sql = "SELECT 1";
  EXPECT_EQ(db.query(sql, std::span<const SQLiteArgument>()).at(0).integer(0), 1);
  sql.back() = '2';
  EXPECT_EQ(db.query(sql, std::span<const SQLiteArgument>()).at(0).integer(0), 2);
}

TEST_F(SQLiteDatabaseTest, WriteLockFollowsTheStatementsRun) {
  db.execute("CREATE TABLE t (v)");
  EXPECT_FALSE(db.holdsWriteLock());
  db.execute("BEGIN");
  db.query("SELECT COUNT(*) FROM t");
  EXPECT_FALSE(db.holdsWriteLock());  // reading only
  db.execute("INSERT INTO t VALUES (1)");
  EXPECT_TRUE(db.holdsWriteLock());
  db.execute("COMMIT");
  EXPECT_FALSE(db.holdsWriteLock());

  db.transaction(true, [&] { EXPECT_TRUE(db.holdsWriteLock()); });
  EXPECT_FALSE(db.holdsWriteLock());
  EXPECT_THROW(db.transaction(true,
                              [&] {
                                EXPECT_TRUE(db.holdsWriteLock());
                                throw std::runtime_error("body");
                              }),
               std::runtime_error);
  EXPECT_FALSE(db.holdsWriteLock());
  db.execute("BEGIN IMMEDIATE");
  EXPECT_TRUE(db.holdsWriteLock());
  db.close();
  EXPECT_FALSE(db.holdsWriteLock());
}

TEST_F(SQLiteDatabaseTest, ClosedDatabaseRefusesEveryStatement) {
  db.execute("CREATE TABLE t (v)");
  db.execute("INSERT INTO t VALUES (1)");
  db.close();
  db.close();
  EXPECT_FALSE(db.isOpen());
  EXPECT_EQ(db.changes(), 0);
  EXPECT_EQ(db.lastInsertRowID(), 0);

  EXPECT_EQ(errorOf([&] { db.execute("INSERT INTO t VALUES (2)"); }),
            SQLiteError(21, "database is closed", "INSERT INTO t VALUES (2)"));
  EXPECT_EQ(errorOf([&] { db.query("SELECT v FROM t"); }),
            SQLiteError(21, "database is closed", "SELECT v FROM t"));
  bool ran = false;
  EXPECT_EQ(errorOf([&] { db.transaction(true, [&] { ran = true; }); }),
            SQLiteError(21, "database is closed", "BEGIN IMMEDIATE"));
  EXPECT_EQ(errorOf([&] { db.transaction(false, [&] { ran = true; }); }).sql(), "BEGIN");
  EXPECT_FALSE(ran);
  EXPECT_EQ(db.transactionDepth(), 0);

  SQLiteDatabase reopened(file);
  EXPECT_EQ(reopened.query("SELECT COUNT(*) FROM t").at(0).integer(0), 1);
}

}  // namespace
}  // namespace synckit
