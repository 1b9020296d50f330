#pragma once
// The model behind one lock, plus its persistence. Route handlers run on the
// HTTP server's worker threads and reach the model only through read() and
// write(); both hold the lock for the callback's duration, so callbacks must be
// short and must never sleep.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "server/blob_store.h"
#include "server/service_model.h"

namespace devserver {

class StateStore;

class SharedState {
 public:
  // With a state file, the stored state is loaded (or a new file created) and
  // every write() is saved before it returns. Throws std::runtime_error when the
  // file cannot be opened or read.
  SharedState(std::map<std::string, std::string> members, std::int64_t tokenLifetimeSeconds,
              const std::optional<std::string>& stateFile);
  ~SharedState();

  template <class F>
  auto read(F&& f) const {
    std::lock_guard lock(mutex_);
    return f(static_cast<const ServiceModel&>(model_));
  }

  // Runs a change and saves the state. When the callback throws, nothing is saved.
  template <class F>
  auto write(F&& f) {
    std::lock_guard lock(mutex_);
    if constexpr (std::is_void_v<decltype(f(model_))>) {
      f(model_);
      save();
    } else {
      auto result = f(model_);
      save();
      return result;
    }
  }

  // A change not worth a save of its own (a device's last-seen time); it goes to
  // disk with the next write().
  template <class F>
  auto touch(F&& f) {
    std::lock_guard lock(mutex_);
    return f(model_);
  }

  BlobStore& blobs() { return *blobs_; }

  // Milliseconds since the epoch, shifted by advanceClock(): lets tests reach
  // expiry times without waiting.
  std::int64_t now() const;
  void advanceClock(std::int64_t millis) { clockOffset_ += millis; }

 private:
  void save();

  mutable std::mutex mutex_;
  ServiceModel model_;
  std::unique_ptr<StateStore> store_;
  std::unique_ptr<BlobStore> blobs_;
  std::atomic<std::int64_t> clockOffset_{0};
};

}  // namespace devserver
