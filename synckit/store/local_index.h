#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "synckit/base/uuid.h"
#include "synckit/store/sqlite_database.h"

namespace synckit {

// One item the file provider has on disk, where it put it and what it saw
// there after writing it, so that a later difference is the user's edit.
struct IndexEntry {
  Uuid brainId;
  std::string nodeId;
  std::string path;  // mirror-relative: brain folder + "/" + node path
  bool isDirectory = false;
  std::int64_t contentVersion = 0;
  std::int64_t size = 0;
  std::int64_t mtimeNanoseconds = 0;
  std::uint64_t inode = 0;
  // SHA-256 of the bytes as written (lower-case hex); empty for a folder or
  // when not known. Tells a touched file from an edited one.
  std::string contentHash;

  bool operator==(const IndexEntry&) const = default;
};

// The file provider's own SQLite file: what it has on disk (one row per
// item, one item per path), the store change-log anchor it has applied, the
// folder of each brain, and the downloads to retry. Its files are also the
// materialized items the application enumerates, from another process,
// with materializedPage().
//
// Any thread may call any operation; one recursive lock is held for each,
// so transaction bodies may call the others.
class LocalIndex {
 public:
  // One page of materialized items: node identifier strings in row order,
  // and the row id to continue after when there may be more.
  struct Page {
    std::vector<std::string> identifiers;
    std::optional<std::int64_t> next;

    bool operator==(const Page&) const = default;
  };

  // One entry's path and what the provider saw there.
  struct Location {
    std::string path;
    bool isDirectory = false;
    std::int64_t size = 0;
    std::int64_t mtimeNanoseconds = 0;
    std::uint64_t inode = 0;

    bool operator==(const Location&) const = default;
  };

  // Opens or creates the file (WAL, 5 s busy timeout) and its tables.
  explicit LocalIndex(const std::filesystem::path& file);
  LocalIndex(const LocalIndex&) = delete;
  LocalIndex& operator=(const LocalIndex&) = delete;

  std::optional<IndexEntry> entry(const Uuid& brainId, std::string_view nodeId);
  std::optional<IndexEntry> entryAtPath(std::string_view path);
  // A brain's entries by path.
  std::vector<IndexEntry> entries(const Uuid& brainId);
  // Where every brain's items are and what the provider saw there, without
  // their identities and hashes: what a rescan compares the whole disk with,
  // read in one pass over the table, in no particular order.
  std::vector<Location> locations();
  // The entry at `pathPrefix` and every entry below it, by path.
  std::vector<IndexEntry> entriesUnder(std::string_view pathPrefix);
  // Adds or replaces the node's row. Only one item can be at a path, so
  // another node's row at the same path goes.
  void put(const IndexEntry& entry);
  void remove(const Uuid& brainId, std::string_view nodeId);
  // A folder moved: the row at `from` and every row below it now start at
  // `to` instead.
  void movePrefix(std::string_view from, std::string_view to);

  // The store change-log anchor applied so far; 0 at first.
  std::int64_t anchor();
  void setAnchor(std::int64_t anchor);

  // The folder name each brain has in the mirror; setting none forgets it.
  std::map<Uuid, std::string> brainFolders();
  void setBrainFolder(const Uuid& brainId, const std::optional<std::string>& folder);

  // Downloads that failed, tried again on every wake, oldest first.
  std::vector<std::pair<Uuid, std::string>> retries();
  void addRetry(const Uuid& brainId, std::string_view nodeId);
  void removeRetry(const Uuid& brainId, std::string_view nodeId);

  // Up to `limit` materialized files (rows that are not folders) after row
  // `afterRowId` (0 to start), as SyncItemIdentifier node strings. Opens
  // `file` read-only for the call, so another process may page while the
  // provider writes; a missing file (or one without its tables yet) is an
  // empty last page.
  static Page materializedPage(const std::filesystem::path& file, std::int64_t afterRowId,
                               int limit);

  // Runs `body` in one immediate transaction; an exception rolls it back.
  template <class F>
  auto transaction(F&& body) -> decltype(body()) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return database_.transaction(true, std::forward<F>(body));
  }

 private:
  std::vector<IndexEntry> queryEntries(std::string_view sql,
                                       std::span<const SQLiteArgument> arguments);

  std::recursive_mutex lock_;
  SQLiteDatabase database_;
};

}  // namespace synckit
