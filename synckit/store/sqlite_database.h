#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "synckit/store/sqlite_argument.h"
#include "synckit/store/sqlite_error.h"
#include "synckit/store/sqlite_row.h"
#include "synckit/store/sqlite_value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace synckit {

// One SQLite connection: runs statements, converts rows and counts nested
// transactions. Every failure is a SQLiteError.
//
// Not synchronised: the owner serialises every call (MetadataStore holds its
// recursive lock around each one). Any thread may make the calls as long as
// only one does at a time.
//
// Prepared statements are kept per connection, keyed by their text, and are
// reset with their bindings cleared after every use, so nothing but the
// connection, that cache and the transaction depth outlives a call (nor does
// any pointer into a caller's SQLiteArgument text).
class SQLiteDatabase {
 public:
  // Opens or creates the file, then sets the busy timeout, WAL journalling
  // and foreign keys. Throws when any of that fails.
  explicit SQLiteDatabase(const std::filesystem::path& path);
  ~SQLiteDatabase();

  SQLiteDatabase(const SQLiteDatabase&) = delete;
  SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

  // Runs a statement to completion, discarding any rows.
  void execute(std::string_view sql, const std::vector<SQLiteValue>& bindings = {});
  // Runs a statement to completion and returns its rows in SQLite's order.
  std::vector<SQLiteRow> query(std::string_view sql, const std::vector<SQLiteValue>& bindings = {});
  // The same with arguments that view the caller's values instead of copies.
  void execute(std::string_view sql, std::span<const SQLiteArgument> arguments);
  std::vector<SQLiteRow> query(std::string_view sql, std::span<const SQLiteArgument> arguments);

  // Runs `body` in a transaction. Only the outermost level talks to SQLite
  // (BEGIN [IMMEDIATE] / COMMIT / ROLLBACK); nested levels just count, so an
  // error thrown anywhere inside rolls back everything once it reaches the
  // outermost level. A failed COMMIT is reported with sql "COMMIT" and leaves no transaction open.
  template <class F>
  auto transaction(bool immediate, F&& body) -> decltype(body());

  // Rows changed by the most recent statement; 0 once closed.
  int changes() const;
  // Row id of the most recent insert; 0 once closed.
  std::int64_t lastInsertRowID() const;
  int transactionDepth() const noexcept { return transactionDepth_; }
  // Rows inserted, changed or deleted through this connection since it
  // opened, triggers included; 0 once closed.
  std::int64_t totalChanges() const;
  // True while this connection holds the database's write lock (a write
  // transaction is open), so that no other connection can change anything.
  bool holdsWriteLock() const;
  bool isOpen() const noexcept { return handle_ != nullptr; }

  // Finalises the cached statements and closes the connection. Harmless when
  // already closed; every later statement fails with "database is closed".
  void close();

 private:
  struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const noexcept;
  };
  using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

  // Heterogeneous lookup, so a hit does not copy the statement text.
  // Statement texts run to hundreds of bytes and tell each other apart by
  // length and by their two ends; hashing just those keeps a hit cheap, and
  // the map still compares whole texts.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept {
      std::hash<std::string_view> hash;
      constexpr std::size_t kEdge = 48;
      if (text.size() <= 2 * kEdge) return hash(text);
      return hash(text.substr(0, kEdge)) ^
             (hash(text.substr(text.size() - kEdge)) * 31 + text.size());
    }
  };

  // A cached statement borrowed for one call; handing it back resets it and
  // clears its bindings so that it holds no lock or value past the call.
  class Lease {
   public:
    explicit Lease(sqlite3_stmt* statement) noexcept : statement_(statement) {}
    ~Lease();
    Lease(Lease&& other) noexcept : statement_(std::exchange(other.statement_, nullptr)) {}
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Lease& operator=(Lease&&) = delete;
    sqlite3_stmt* get() const noexcept { return statement_; }

   private:
    sqlite3_stmt* statement_;
  };

  // A statement whose text was seen at the same address before, checked
  // against the cached text, so that the store's fixed texts skip hashing.
  struct RecentStatement {
    const char* text = nullptr;
    const std::string* cachedText = nullptr;
    sqlite3_stmt* statement = nullptr;
  };
  static constexpr std::size_t kRecentSlots = 64;

  sqlite3_stmt* statementFor(std::string_view sql);
  template <class Value>
  Lease prepare(std::string_view sql, std::span<const Value> bindings);
  template <class Value>
  void run(std::string_view sql, std::span<const Value> bindings);
  template <class Value>
  std::vector<SQLiteRow> rowsOf(std::string_view sql, std::span<const Value> bindings);
  std::string currentMessage() const;
  void begin(bool immediate);
  void commit();
  void rollbackQuietly() noexcept;

  template <class F>
  decltype(auto) runOrRollBack(F&& body) {
    try {
      return std::forward<F>(body)();
    } catch (...) {
      rollbackQuietly();
      transactionDepth_ = 0;
      throw;
    }
  }

  sqlite3* handle_ = nullptr;
  int transactionDepth_ = 0;
  // holdsWriteLock's last answer; only a statement run on this connection
  // can take or drop the lock, so running one forgets it. The batch applier
  // asks several times per item it applies, and asking SQLite each time
  // cost more than the item's statement bindings.
  mutable std::optional<bool> writeLockHeld_;
  std::unordered_map<std::string, StatementHandle, TextHash, std::equal_to<>> statements_;
  std::array<RecentStatement, kRecentSlots> recent_{};
};

template <class F>
auto SQLiteDatabase::transaction(bool immediate, F&& body) -> decltype(body()) {
  using Result = decltype(body());
  if (transactionDepth_ >= 1) {
    struct DepthGuard {
      int& depth;
      ~DepthGuard() { --depth; }
    };
    ++transactionDepth_;
    DepthGuard guard{transactionDepth_};
    return std::forward<F>(body)();
  }
  begin(immediate);
  transactionDepth_ = 1;
  if constexpr (std::is_void_v<Result>) {
    runOrRollBack(std::forward<F>(body));
    commit();
  } else {
    Result result = runOrRollBack(std::forward<F>(body));
    commit();
    return result;
  }
}

}  // namespace synckit
