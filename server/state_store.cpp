#include "server/state_store.h"

#include <sqlite3.h>

#include <stdexcept>

#include "server/wire_time.h"

namespace devserver {
namespace {

class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("State file: ") + sqlite3_errmsg(db));
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int index, const std::string& text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  void bindBlob(int index, const std::string& bytes) {
    sqlite3_bind_blob64(stmt_, index, bytes.data(), bytes.size(), SQLITE_STATIC);
  }
  void bind(int index, std::int64_t value) { sqlite3_bind_int64(stmt_, index, value); }

  bool step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw std::runtime_error(std::string("State file: ") + sqlite3_errmsg(db_));
  }
  std::string columnBytes(int index) {
    auto* data = static_cast<const char*>(sqlite3_column_blob(stmt_, index));
    int size = sqlite3_column_bytes(stmt_, index);
    return data ? std::string(data, static_cast<std::size_t>(size)) : std::string();
  }
  std::int64_t columnInt(int index) { return sqlite3_column_int64(stmt_, index); }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace

void StateStore::Closer::operator()(sqlite3* db) const { sqlite3_close(db); }

StateStore::StateStore(const std::string& path) {
  sqlite3* db = nullptr;
  int rc =
      sqlite3_open_v2(path.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  db_.reset(db);
  if (rc != SQLITE_OK) {
    throw std::runtime_error("Cannot open the state file " + path + ": " +
                             (db ? sqlite3_errmsg(db) : "out of memory"));
  }
  sqlite3_busy_timeout(db, 5000);
  exec("PRAGMA journal_mode=WAL");
  exec("PRAGMA synchronous=NORMAL");
  exec(
      "CREATE TABLE IF NOT EXISTS state (id INTEGER PRIMARY KEY CHECK (id = 1), "
      "json TEXT NOT NULL, saved_at INTEGER NOT NULL)");
  exec(
      "CREATE TABLE IF NOT EXISTS blobs (hash TEXT PRIMARY KEY, size INTEGER NOT NULL, "
      "bytes BLOB NOT NULL)");
}

StateStore::~StateStore() = default;

void StateStore::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "unknown error";
    sqlite3_free(message);
    throw std::runtime_error("State file: " + text);
  }
}

std::optional<std::string> StateStore::loadState() {
  std::lock_guard lock(mutex_);
  Statement stmt(db_.get(), "SELECT json FROM state WHERE id = 1");
  if (!stmt.step()) return std::nullopt;
  return stmt.columnBytes(0);
}

void StateStore::saveState(const std::string& json) {
  std::lock_guard lock(mutex_);
  Statement stmt(
      db_.get(),
      "INSERT INTO state (id, json, saved_at) VALUES (1, ?, ?) "
      "ON CONFLICT(id) DO UPDATE SET json = excluded.json, saved_at = excluded.saved_at");
  stmt.bind(1, json);
  stmt.bind(2, systemMillis());
  stmt.step();
}

void StateStore::putBlob(const std::string& hash, const std::string& bytes) {
  std::lock_guard lock(mutex_);
  Statement stmt(db_.get(), "INSERT OR IGNORE INTO blobs (hash, size, bytes) VALUES (?, ?, ?)");
  stmt.bind(1, hash);
  stmt.bind(2, static_cast<std::int64_t>(bytes.size()));
  stmt.bindBlob(3, bytes);
  stmt.step();
}

std::optional<std::string> StateStore::readBlob(const std::string& hash) {
  std::lock_guard lock(mutex_);
  Statement stmt(db_.get(), "SELECT bytes FROM blobs WHERE hash = ?");
  stmt.bind(1, hash);
  if (!stmt.step()) return std::nullopt;
  return stmt.columnBytes(0);
}

std::vector<std::pair<std::string, std::int64_t>> StateStore::blobSizes() {
  std::lock_guard lock(mutex_);
  Statement stmt(db_.get(), "SELECT hash, size FROM blobs");
  std::vector<std::pair<std::string, std::int64_t>> out;
  while (stmt.step()) out.emplace_back(stmt.columnBytes(0), stmt.columnInt(1));
  return out;
}

}  // namespace devserver
