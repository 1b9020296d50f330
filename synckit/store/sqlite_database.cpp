#include "synckit/store/sqlite_database.h"

#include <sqlite3.h>

#include <cstdint>
#include <cstring>

#include "synckit/base/crash_point.h"

namespace synckit {
namespace {

constexpr int kOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;

int bindValue(sqlite3_stmt* statement, int index, const SQLiteValue& value) {
  switch (value.kind()) {
    case SQLiteValue::Kind::integer:
      return sqlite3_bind_int64(statement, index,
                                std::get<SQLiteValue::Integer>(value.value).value);
    case SQLiteValue::Kind::text:
      return sqlite3_bind_text(statement, index,
                               std::get<SQLiteValue::Text>(value.value).value.c_str(), -1,
                               SQLITE_TRANSIENT);
    case SQLiteValue::Kind::blob: {
      const Bytes& bytes = std::get<SQLiteValue::Blob>(value.value).value;
      // An empty buffer has no usable pointer; a zero-length zeroblob still
      // stores a blob rather than NULL.
      if (bytes.empty()) return sqlite3_bind_zeroblob(statement, index, 0);
      return sqlite3_bind_blob(statement, index, bytes.data(), static_cast<int>(bytes.size()),
                               SQLITE_TRANSIENT);
    }
    case SQLiteValue::Kind::null:
      return sqlite3_bind_null(statement, index);
  }
  return SQLITE_MISUSE;
}

int bindValue(sqlite3_stmt* statement, int index, const SQLiteArgument& argument) {
  switch (argument.kind()) {
    case SQLiteArgument::Kind::integer:
      return sqlite3_bind_int64(statement, index, argument.integerValue());
    case SQLiteArgument::Kind::text: {
      // Up to the first NUL, as a SQLiteValue's text binds. SQLITE_STATIC:
      // the statement is reset and its bindings cleared before the call that
      // bound it returns, while the caller's text is still there.
      std::string_view text = argument.textValue();
      if (auto nul = text.find('\0'); nul != std::string_view::npos) text = text.substr(0, nul);
      return sqlite3_bind_text64(statement, index, text.empty() ? "" : text.data(), text.size(),
                                 SQLITE_STATIC, SQLITE_UTF8);
    }
    case SQLiteArgument::Kind::null:
      return sqlite3_bind_null(statement, index);
  }
  return SQLITE_MISUSE;
}

SQLiteValue columnValue(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
      return SQLiteValue::integer(sqlite3_column_int64(statement, column));
    case SQLITE_TEXT: {
      const unsigned char* text = sqlite3_column_text(statement, column);
      if (text == nullptr) return SQLiteValue::text(std::string());
      int length = sqlite3_column_bytes(statement, column);
      return SQLiteValue::text(std::string(reinterpret_cast<const char*>(text), length));
    }
    case SQLITE_BLOB: {
      const void* blob = sqlite3_column_blob(statement, column);
      int length = sqlite3_column_bytes(statement, column);
      if (blob == nullptr || length < 1) return SQLiteValue::blob(Bytes());
      const auto* bytes = static_cast<const std::uint8_t*>(blob);
      return SQLiteValue::blob(Bytes(bytes, bytes + length));
    }
    default:
      return SQLiteValue::null();  // NULL, and REAL on purpose
  }
}

}  // namespace

void SQLiteDatabase::StatementFinalizer::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

SQLiteDatabase::Lease::~Lease() {
  if (statement_ == nullptr) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

SQLiteDatabase::SQLiteDatabase(const std::filesystem::path& path) {
  sqlite3* handle = nullptr;
  int result = sqlite3_open_v2(path.c_str(), &handle, kOpenFlags, nullptr);
  if (result != SQLITE_OK) {
    std::string message = handle ? sqlite3_errmsg(handle) : "unable to open " + path.string();
    sqlite3_close(handle);
    throw SQLiteError(result, std::move(message), std::nullopt);
  }
  handle_ = handle;
  try {
    execute("PRAGMA busy_timeout=5000");
    query("PRAGMA journal_mode=WAL");
    execute("PRAGMA foreign_keys=ON");
  } catch (...) {
    close();
    throw;
  }
}

SQLiteDatabase::~SQLiteDatabase() { close(); }

void SQLiteDatabase::close() {
  // Statements first: closing with statements alive would leave a zombie
  // connection behind.
  recent_ = {};
  writeLockHeld_.reset();
  statements_.clear();
  if (handle_ != nullptr) {
    sqlite3_close_v2(handle_);
    handle_ = nullptr;
  }
}

int SQLiteDatabase::changes() const { return handle_ ? sqlite3_changes(handle_) : 0; }

std::int64_t SQLiteDatabase::lastInsertRowID() const {
  return handle_ ? sqlite3_last_insert_rowid(handle_) : 0;
}

std::int64_t SQLiteDatabase::totalChanges() const {
  return handle_ ? sqlite3_total_changes64(handle_) : 0;
}

bool SQLiteDatabase::holdsWriteLock() const {
  if (!writeLockHeld_) {
    writeLockHeld_ = handle_ != nullptr && sqlite3_txn_state(handle_, "main") == SQLITE_TXN_WRITE;
  }
  return *writeLockHeld_;
}

std::string SQLiteDatabase::currentMessage() const {
  return handle_ ? sqlite3_errmsg(handle_) : "unknown error";
}

sqlite3_stmt* SQLiteDatabase::statementFor(std::string_view sql) {
  if (handle_ == nullptr) throw SQLiteError(SQLITE_MISUSE, "database is closed", std::string(sql));
  writeLockHeld_.reset();

  RecentStatement& recent =
      recent_[(reinterpret_cast<std::uintptr_t>(sql.data()) >> 4) % kRecentSlots];
  if (recent.text != nullptr && recent.text == sql.data() && *recent.cachedText == sql) {
    return recent.statement;
  }

  auto cached = statements_.find(sql);
  if (cached == statements_.end()) {
    std::string text(sql);
    sqlite3_stmt* statement = nullptr;
    int result = sqlite3_prepare_v2(handle_, text.c_str(), -1, &statement, nullptr);
    if (result != SQLITE_OK || statement == nullptr) {
      std::string message = currentMessage();
      sqlite3_finalize(statement);
      throw SQLiteError(result, std::move(message), std::move(text));
    }
    cached = statements_.emplace(std::move(text), StatementHandle(statement)).first;
  }
  // Map nodes stay put, so the slot may point at the cached text.
  recent = RecentStatement{sql.data(), &cached->first, cached->second.get()};
  return recent.statement;
}

template <class Value>
SQLiteDatabase::Lease SQLiteDatabase::prepare(std::string_view sql,
                                              std::span<const Value> bindings) {
  Lease lease(statementFor(sql));
  int index = 1;
  for (const Value& value : bindings) {
    if (int result = bindValue(lease.get(), index++, value); result != SQLITE_OK) {
      throw SQLiteError(result, currentMessage(), std::string(sql));
    }
  }
  return lease;
}

template <class Value>
void SQLiteDatabase::run(std::string_view sql, std::span<const Value> bindings) {
  Lease statement = prepare(sql, bindings);
  int result;
  while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
  }
  if (result != SQLITE_DONE) throw SQLiteError(result, currentMessage(), std::string(sql));
}

template <class Value>
std::vector<SQLiteRow> SQLiteDatabase::rowsOf(std::string_view sql,
                                              std::span<const Value> bindings) {
  Lease statement = prepare(sql, bindings);
  const int columns = sqlite3_column_count(statement.get());
  std::vector<SQLiteRow> rows;
  int result;
  while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
    SQLiteRow row;
    row.values.reserve(static_cast<std::size_t>(columns));
    for (int column = 0; column < columns; ++column) {
      row.values.push_back(columnValue(statement.get(), column));
    }
    rows.push_back(std::move(row));
  }
  if (result != SQLITE_DONE) throw SQLiteError(result, currentMessage(), std::string(sql));
  return rows;
}

void SQLiteDatabase::execute(std::string_view sql, const std::vector<SQLiteValue>& bindings) {
  run(sql, std::span<const SQLiteValue>(bindings));
}

void SQLiteDatabase::execute(std::string_view sql, std::span<const SQLiteArgument> arguments) {
  run(sql, arguments);
}

std::vector<SQLiteRow> SQLiteDatabase::query(std::string_view sql,
                                             const std::vector<SQLiteValue>& bindings) {
  return rowsOf(sql, std::span<const SQLiteValue>(bindings));
}

std::vector<SQLiteRow> SQLiteDatabase::query(std::string_view sql,
                                             std::span<const SQLiteArgument> arguments) {
  return rowsOf(sql, arguments);
}

void SQLiteDatabase::begin(bool immediate) { execute(immediate ? "BEGIN IMMEDIATE" : "BEGIN"); }

void SQLiteDatabase::commit() {
  crashPoint();
  try {
    execute("COMMIT");
  } catch (...) {
    // The caller learns that the commit failed. For some failures (a deferred
    // constraint, SQLITE_BUSY) SQLite keeps the transaction open; a connection
    // left inside it would refuse every later BEGIN and swallow later writes,
    // so it is rolled back here.
    if (handle_ != nullptr && sqlite3_get_autocommit(handle_) == 0) rollbackQuietly();
    transactionDepth_ = 0;
    throw;
  }
  transactionDepth_ = 0;
}

void SQLiteDatabase::rollbackQuietly() noexcept {
  try {
    execute("ROLLBACK");
  } catch (...) {
    // SQLite may already have rolled back on its own (e.g. after SQLITE_FULL);
    // the body's error is the one worth reporting.
  }
}

}  // namespace synckit
