#pragma once
// The state file: one SQLite database holding the whole model as one JSON
// document (rewritten after each change) and the uploaded blobs, each stored
// once. Thread-safe: one mutex serialises the connection.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

namespace devserver {

class StateStore {
 public:
  // Opens or creates the file; throws std::runtime_error with SQLite's message.
  explicit StateStore(const std::string& path);
  ~StateStore();
  StateStore(const StateStore&) = delete;
  StateStore& operator=(const StateStore&) = delete;

  std::optional<std::string> loadState();
  void saveState(const std::string& json);

  void putBlob(const std::string& hash, const std::string& bytes);
  std::optional<std::string> readBlob(const std::string& hash);
  std::vector<std::pair<std::string, std::int64_t>> blobSizes();

 private:
  void exec(const char* sql);

  struct Closer {
    void operator()(sqlite3* db) const;
  };
  std::mutex mutex_;
  std::unique_ptr<sqlite3, Closer> db_;
};

}  // namespace devserver
