#pragma once
// Uploaded blobs by SHA-256. Bytes stay in memory for the life of the process
// and, with a state file, also go to disk so that a restart keeps them.
// Thread-safe: hashing happens outside the lock, so big uploads do not stall
// other requests.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace devserver {

class StateStore;

struct BlobReceipt {
  std::string hash;
  std::int64_t size = 0;
  bool operator==(const BlobReceipt&) const = default;
};

class BlobStore {
 public:
  // Largest blob accepted: 100 MB.
  static constexpr std::int64_t kMaxBlobSize = 104857600;

  // `disk` may be null (memory only); it must outlive the store.
  explicit BlobStore(StateStore* disk);

  BlobReceipt put(std::string bytes);
  std::optional<std::int64_t> size(const std::string& hash) const;
  std::shared_ptr<const std::string> read(const std::string& hash) const;

 private:
  struct Entry {
    std::int64_t size = 0;
    std::shared_ptr<const std::string> bytes;  // null until read back from disk
  };
  StateStore* disk_;
  mutable std::mutex mutex_;
  mutable std::map<std::string, Entry> entries_;
};

}  // namespace devserver
