#include "synckit/store/local_index.h"

#include <sqlite3.h>

#include <array>
#include <memory>
#include <system_error>
#include <variant>

#include "synckit/base/metadata_store_error.h"
#include "synckit/store/sqlite_error.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

// The file format is shared with the application, which pages through
// `entries` from its own process: these texts never change once shipped.
constexpr std::array<const char*, 4> kVersion1 = {
    "CREATE TABLE entries (brain_id TEXT NOT NULL, node_id TEXT NOT NULL, path TEXT NOT NULL "
    "UNIQUE, is_directory INTEGER NOT NULL, content_version INTEGER NOT NULL, size INTEGER NOT "
    "NULL, mtime_ns INTEGER NOT NULL, inode INTEGER NOT NULL, PRIMARY KEY (brain_id, node_id))",
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT)",
    "CREATE TABLE brain_folders (brain_id TEXT PRIMARY KEY, folder TEXT NOT NULL)",
    "CREATE TABLE retries (brain_id TEXT NOT NULL, node_id TEXT NOT NULL, PRIMARY KEY (brain_id, "
    "node_id))",
};

// Version 2 remembers what the bytes were, so that a rescan can tell a
// touched file from an edited one.
constexpr const char* kVersion2 =
    "ALTER TABLE entries ADD COLUMN content_hash TEXT NOT NULL DEFAULT ''";

constexpr const char* kEntryColumns =
    "SELECT brain_id, node_id, path, is_directory, content_version, size, mtime_ns, inode, "
    "content_hash FROM entries ";
constexpr std::string_view kAnchorKey = "anchor";

template <class... Arguments>
std::array<SQLiteArgument, sizeof...(Arguments)> arguments(const Arguments&... items) {
  return {items...};
}

SQLiteArgument text(std::string_view value) { return SQLiteArgument::text(value); }
SQLiteArgument text(const Uuid::Text& value) { return text({value.data(), value.size()}); }
SQLiteArgument integer(std::int64_t value) { return SQLiteArgument::integer(value); }

Uuid uuidAt(const SQLiteRow& row, std::size_t index) {
  const auto* text = std::get_if<SQLiteValue::Text>(&row.values.at(index).value);
  const std::string_view value = text ? std::string_view(text->value) : std::string_view();
  auto uuid = Uuid::parse(value);
  if (!uuid) throw MetadataStoreError::corruptRow("invalid UUID \"" + std::string(value) + "\"");
  return *uuid;
}

// The text of a column, moved out of the row: a rescan reads every row at
// once, and copying each text again would cost it about what SQLite does.
std::string takeText(SQLiteRow& row, std::size_t index) {
  auto* text = std::get_if<SQLiteValue::Text>(&row.values[index].value);
  return text ? std::move(text->value) : std::string();
}

IndexEntry entryFromRow(SQLiteRow& row) {
  return IndexEntry{uuidAt(row, 0),   takeText(row, 1),
                    takeText(row, 2), row.integer(3) != 0,
                    row.integer(4),   row.integer(5),
                    row.integer(6),   static_cast<std::uint64_t>(row.integer(7)),
                    takeText(row, 8)};
}

// The bounds of every path strictly below `prefix`: from prefix + "/" up to,
// not including, prefix + "0" ("0" follows "/" in byte order).
std::pair<std::string, std::string> belowBounds(std::string_view prefix) {
  return {std::string(prefix) + "/", std::string(prefix) + "0"};
}

struct ConnectionCloser {
  void operator()(sqlite3* connection) const noexcept { sqlite3_close_v2(connection); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};

}  // namespace

LocalIndex::LocalIndex(const std::filesystem::path& file) : database_(file) {
  database_.transaction(true, [&] {
    auto rows = database_.query("PRAGMA user_version");
    const std::int64_t version = rows.empty() ? 0 : rows.front().integer(0);
    if (version < 1) {
      for (const char* statement : kVersion1) database_.execute(statement);
    }
    if (version < 2) database_.execute(kVersion2);
    if (version < 2) database_.execute("PRAGMA user_version = 2");
  });
}

std::vector<IndexEntry> LocalIndex::queryEntries(std::string_view sql,
                                                 std::span<const SQLiteArgument> bindings) {
  std::vector<IndexEntry> entries;
  auto rows = database_.query(sql, bindings);
  entries.reserve(rows.size());
  for (auto& row : rows) entries.push_back(entryFromRow(row));
  return entries;
}

std::optional<IndexEntry> LocalIndex::entry(const Uuid& brainId, std::string_view nodeId) {
  Lock guard(lock_);
  static const std::string sql = std::string(kEntryColumns) + "WHERE brain_id = ? AND node_id = ?";
  auto found = queryEntries(sql, arguments(text(brainId.toText()), text(nodeId)));
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

std::optional<IndexEntry> LocalIndex::entryAtPath(std::string_view path) {
  Lock guard(lock_);
  static const std::string sql = std::string(kEntryColumns) + "WHERE path = ?";
  auto found = queryEntries(sql, arguments(text(path)));
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

std::vector<IndexEntry> LocalIndex::entries(const Uuid& brainId) {
  Lock guard(lock_);
  static const std::string sql = std::string(kEntryColumns) + "WHERE brain_id = ? ORDER BY path";
  return queryEntries(sql, arguments(text(brainId.toText())));
}

std::vector<LocalIndex::Location> LocalIndex::locations() {
  Lock guard(lock_);
  auto rows = database_.query("SELECT path, is_directory, size, mtime_ns, inode FROM entries");
  std::vector<Location> locations;
  locations.reserve(rows.size());
  for (auto& row : rows) {
    locations.push_back({takeText(row, 0), row.integer(1) != 0, row.integer(2), row.integer(3),
                         static_cast<std::uint64_t>(row.integer(4))});
  }
  return locations;
}

std::vector<IndexEntry> LocalIndex::entriesUnder(std::string_view pathPrefix) {
  Lock guard(lock_);
  static const std::string sql =
      std::string(kEntryColumns) + "WHERE path = ? OR (path >= ? AND path < ?) ORDER BY path";
  auto [low, high] = belowBounds(pathPrefix);
  return queryEntries(sql, arguments(text(pathPrefix), text(low), text(high)));
}

void LocalIndex::put(const IndexEntry& entry) {
  Lock guard(lock_);
  const auto brainId = entry.brainId.toText();
  database_.transaction(true, [&] {
    database_.execute("DELETE FROM entries WHERE path = ? AND NOT (brain_id = ? AND node_id = ?)",
                      arguments(text(entry.path), text(brainId), text(entry.nodeId)));
    // An update keeps the row id, so the application's paging by row id does
    // not see a file again merely because its content changed.
    database_.execute(
        "INSERT INTO entries (brain_id, node_id, path, is_directory, content_version, size, "
        "mtime_ns, inode, content_hash) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (brain_id, "
        "node_id) DO UPDATE SET path = excluded.path, is_directory = excluded.is_directory, "
        "content_version = excluded.content_version, size = excluded.size, mtime_ns = "
        "excluded.mtime_ns, inode = excluded.inode, content_hash = excluded.content_hash",
        arguments(text(brainId), text(entry.nodeId), text(entry.path),
                  SQLiteArgument::boolean(entry.isDirectory), integer(entry.contentVersion),
                  integer(entry.size), integer(entry.mtimeNanoseconds),
                  integer(static_cast<std::int64_t>(entry.inode)), text(entry.contentHash)));
  });
}

void LocalIndex::remove(const Uuid& brainId, std::string_view nodeId) {
  Lock guard(lock_);
  database_.execute("DELETE FROM entries WHERE brain_id = ? AND node_id = ?",
                    arguments(text(brainId.toText()), text(nodeId)));
}

void LocalIndex::movePrefix(std::string_view from, std::string_view to) {
  Lock guard(lock_);
  auto [low, high] = belowBounds(from);
  // length() and substr() both count characters, so the cut falls exactly
  // after `from` whatever the text holds.
  database_.execute(
      "UPDATE entries SET path = ?1 || substr(path, length(?2) + 1) WHERE path = ?2 OR (path >= "
      "?3 AND path < ?4)",
      arguments(text(to), text(from), text(low), text(high)));
}

std::int64_t LocalIndex::anchor() {
  Lock guard(lock_);
  auto rows = database_.query("SELECT value FROM meta WHERE key = ?", arguments(text(kAnchorKey)));
  if (rows.empty()) return 0;
  std::string value = rows.front().string(0);
  try {
    std::size_t used = 0;
    std::int64_t anchor = std::stoll(value, &used);
    if (used == value.size()) return anchor;
  } catch (const std::exception&) {
  }
  throw MetadataStoreError::corruptRow("invalid anchor \"" + value + "\"");
}

void LocalIndex::setAnchor(std::int64_t anchor) {
  Lock guard(lock_);
  const std::string value = std::to_string(anchor);
  database_.execute(
      "INSERT INTO meta (key, value) VALUES (?, ?) ON CONFLICT (key) DO UPDATE SET value = "
      "excluded.value",
      arguments(text(kAnchorKey), text(value)));
}

std::map<Uuid, std::string> LocalIndex::brainFolders() {
  Lock guard(lock_);
  std::map<Uuid, std::string> folders;
  for (const auto& row : database_.query("SELECT brain_id, folder FROM brain_folders")) {
    folders[uuidAt(row, 0)] = row.string(1);
  }
  return folders;
}

void LocalIndex::setBrainFolder(const Uuid& brainId, const std::optional<std::string>& folder) {
  Lock guard(lock_);
  const auto id = brainId.toText();
  if (folder) {
    database_.execute(
        "INSERT INTO brain_folders (brain_id, folder) VALUES (?, ?) ON CONFLICT (brain_id) DO "
        "UPDATE SET folder = excluded.folder",
        arguments(text(id), text(*folder)));
  } else {
    database_.execute("DELETE FROM brain_folders WHERE brain_id = ?", arguments(text(id)));
  }
}

std::vector<std::pair<Uuid, std::string>> LocalIndex::retries() {
  Lock guard(lock_);
  std::vector<std::pair<Uuid, std::string>> retries;
  for (const auto& row : database_.query("SELECT brain_id, node_id FROM retries ORDER BY rowid")) {
    retries.emplace_back(uuidAt(row, 0), row.string(1));
  }
  return retries;
}

void LocalIndex::addRetry(const Uuid& brainId, std::string_view nodeId) {
  Lock guard(lock_);
  database_.execute("INSERT OR IGNORE INTO retries (brain_id, node_id) VALUES (?, ?)",
                    arguments(text(brainId.toText()), text(nodeId)));
}

void LocalIndex::removeRetry(const Uuid& brainId, std::string_view nodeId) {
  Lock guard(lock_);
  database_.execute("DELETE FROM retries WHERE brain_id = ? AND node_id = ?",
                    arguments(text(brainId.toText()), text(nodeId)));
}

LocalIndex::Page LocalIndex::materializedPage(const std::filesystem::path& file,
                                              std::int64_t afterRowId, int limit) {
  Page page;
  std::error_code ignored;
  if (!std::filesystem::exists(file, ignored)) return page;
  // Read-only, so that a page asked for before the provider ever ran never
  // leaves an empty file (or a write lock) behind.
  sqlite3* opened = nullptr;
  const int openResult = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, ConnectionCloser> connection(opened);
  if (openResult != SQLITE_OK) {
    if (!std::filesystem::exists(file, ignored)) return page;
    throw SQLiteError(openResult, opened ? sqlite3_errmsg(opened) : "unable to open database",
                      std::nullopt);
  }
  sqlite3_busy_timeout(connection.get(), 5000);
  constexpr const char* kSQL =
      "SELECT rowid, brain_id, node_id FROM entries WHERE is_directory = 0 AND rowid > ? ORDER BY "
      "rowid LIMIT ?";
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(connection.get(), kSQL, -1, &prepared, nullptr) != SQLITE_OK) {
    std::string message = sqlite3_errmsg(connection.get());
    if (message.starts_with("no such table")) return page;
    throw SQLiteError(sqlite3_errcode(connection.get()), std::move(message), kSQL);
  }
  std::unique_ptr<sqlite3_stmt, StatementFinalizer> statement(prepared);
  // One row more than asked tells whether another page follows.
  const int wanted = limit < 1 ? 1 : limit;
  sqlite3_bind_int64(statement.get(), 1, afterRowId);
  sqlite3_bind_int64(statement.get(), 2, static_cast<std::int64_t>(wanted) + 1);
  std::int64_t lastRowId = afterRowId;
  int result;
  while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
    if (static_cast<int>(page.identifiers.size()) == wanted) {
      page.next = lastRowId;
      break;
    }
    lastRowId = sqlite3_column_int64(statement.get(), 0);
    const auto* brain = sqlite3_column_text(statement.get(), 1);
    const auto* node = sqlite3_column_text(statement.get(), 2);
    auto brainId = Uuid::parse(brain ? reinterpret_cast<const char*>(brain) : "");
    // A row that cannot name an item is skipped rather than stopping every
    // later page.
    if (!brainId || node == nullptr || *node == '\0') continue;
    page.identifiers.push_back(
        SyncItemIdentifier::node(*brainId, reinterpret_cast<const char*>(node)).string());
  }
  if (result != SQLITE_ROW && result != SQLITE_DONE) {
    throw SQLiteError(result, sqlite3_errmsg(connection.get()), kSQL);
  }
  return page;
}

}  // namespace synckit
