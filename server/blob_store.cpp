#include "server/blob_store.h"

#include "server/crypto.h"
#include "server/state_store.h"

namespace devserver {

BlobStore::BlobStore(StateStore* disk) : disk_(disk) {
  if (disk_) {
    for (auto& [hash, size] : disk_->blobSizes()) entries_[hash] = Entry{size, nullptr};
  }
}

BlobReceipt BlobStore::put(std::string bytes) {
  BlobReceipt receipt{sha256Hex(bytes), static_cast<std::int64_t>(bytes.size())};
  auto shared = std::make_shared<const std::string>(std::move(bytes));
  if (disk_) disk_->putBlob(receipt.hash, *shared);
  std::lock_guard lock(mutex_);
  entries_[receipt.hash] = Entry{receipt.size, std::move(shared)};
  return receipt;
}

std::optional<std::int64_t> BlobStore::size(const std::string& hash) const {
  std::lock_guard lock(mutex_);
  auto it = entries_.find(hash);
  if (it == entries_.end()) return std::nullopt;
  return it->second.size;
}

std::shared_ptr<const std::string> BlobStore::read(const std::string& hash) const {
  {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(hash);
    if (it == entries_.end()) return nullptr;
    if (it->second.bytes) return it->second.bytes;
  }
  if (!disk_) return nullptr;
  auto bytes = disk_->readBlob(hash);
  if (!bytes) return nullptr;
  auto shared = std::make_shared<const std::string>(std::move(*bytes));
  std::lock_guard lock(mutex_);
  entries_[hash].bytes = shared;
  return shared;
}

}  // namespace devserver
