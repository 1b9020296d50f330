#pragma once

#include <exception>
#include <mutex>
#include <optional>

#include "synckit/platform/keychain_token_store_error.h"
#include "synckit/platform/token_persisting.h"

namespace synckit::testing {

// A TokenPersisting held in memory for unit tests. Each operation can be told
// to fail, either for good or for the next few calls, so that tests can drive
// the token manager through a keychain that refuses to load, save or clear.
// Counts every call, including the failed ones. Thread-safe.
class InMemoryTokenStore : public TokenPersisting {
 public:
  enum class Operation { load, save, clear };

  explicit InMemoryTokenStore(std::optional<TokenSet> initial = std::nullopt)
      : tokens_(std::move(initial)) {}

  // The failure used when a test does not name one: a keychain status that
  // stands for "the keychain could not be reached".
  static std::exception_ptr defaultFailure() {
    return std::make_exception_ptr(
        KeychainTokenStoreError::unexpectedStatus(-25308, "The keychain is not available."));
  }

  // Makes `operation` throw `error`: on every call, or on the next `times`
  // calls only. A failed save or clear leaves the stored pair as it was.
  void fail(Operation operation, std::exception_ptr error = defaultFailure(),
            std::optional<int> times = std::nullopt) {
    std::lock_guard lock(mutex_);
    slot(operation) = Failure{std::move(error), times};
  }

  // Lets `operation` succeed again.
  void heal(Operation operation) {
    std::lock_guard lock(mutex_);
    slot(operation).reset();
  }

  std::optional<TokenSet> load() override {
    std::lock_guard lock(mutex_);
    ++loadCount_;
    throwIfFailing(Operation::load);
    return tokens_;
  }

  void save(const TokenSet& tokens) override {
    std::lock_guard lock(mutex_);
    ++saveCount_;
    throwIfFailing(Operation::save);
    tokens_ = tokens;
  }

  void clear() override {
    std::lock_guard lock(mutex_);
    ++clearCount_;
    throwIfFailing(Operation::clear);
    tokens_.reset();
  }

  // What is stored now, read without counting as a load.
  std::optional<TokenSet> stored() const {
    std::lock_guard lock(mutex_);
    return tokens_;
  }

  int loadCount() const {
    std::lock_guard lock(mutex_);
    return loadCount_;
  }
  int saveCount() const {
    std::lock_guard lock(mutex_);
    return saveCount_;
  }
  int clearCount() const {
    std::lock_guard lock(mutex_);
    return clearCount_;
  }

 private:
  struct Failure {
    std::exception_ptr error;
    std::optional<int> remaining;  // absent: fails on every call
  };

  std::optional<Failure>& slot(Operation operation) {
    switch (operation) {
      case Operation::load:
        return loadFailure_;
      case Operation::save:
        return saveFailure_;
      case Operation::clear:
        break;
    }
    return clearFailure_;
  }

  void throwIfFailing(Operation operation) {
    auto& failure = slot(operation);
    if (!failure) return;
    std::exception_ptr error = failure->error;
    if (failure->remaining && --*failure->remaining <= 0) failure.reset();
    std::rethrow_exception(error);
  }

  mutable std::mutex mutex_;
  std::optional<TokenSet> tokens_;
  std::optional<Failure> loadFailure_;
  std::optional<Failure> saveFailure_;
  std::optional<Failure> clearFailure_;
  int loadCount_ = 0;
  int saveCount_ = 0;
  int clearCount_ = 0;
};

}  // namespace synckit::testing
