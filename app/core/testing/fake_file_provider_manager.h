#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/core/file_provider_manager.h"
#include "synckit/base/error.h"

namespace halvark::testing {

// A FileProviderManager for unit tests. Keeps the registered domains in
// memory and records what was added and removed; counts working-set signals;
// serves a configured list of materialized items page by page. Each
// operation can be told to fail, and the domain manager can be made absent.
// Thread-safe; never calls out while holding its lock.
//
// Materialized items: each page's identifiers are delivered one per
// didEnumerateItems call (an empty page gets none), then the page finishes
// with the next page's token, or with none after the last page. A failing
// page delivers nothing and finishes with its error; a stalled page never
// answers. The configuration is read when materializedItemsEnumerator() is
// called, so a later change does not affect an enumeration under way.
class FakeFileProviderManager : public FileProviderManager {
 public:
  enum class Operation {
    addDomain,
    removeDomain,
    domains,
    signalWorkingSet,
    materializedItemsEnumerator,
  };

  static std::exception_ptr defaultFailure() {
    return std::make_exception_ptr(synckit::Error("The file provider is not available."));
  }

  // Makes every later call of `operation` throw `error`, until heal().
  void fail(Operation operation, std::exception_ptr error = defaultFailure()) {
    std::lock_guard lock(mutex_);
    failures_[index(operation)] = std::move(error);
  }
  void heal(Operation operation) {
    std::lock_guard lock(mutex_);
    failures_[index(operation)] = nullptr;
  }

  // With false, manager() returns null for every domain (true by default).
  void setHasDomainManager(bool hasManager) {
    std::lock_guard lock(mutex_);
    hasManager_ = hasManager;
  }

  // The identifier strings of each page, in order. No pages behaves as one
  // empty page.
  void setMaterializedPages(std::vector<std::vector<std::string>> pages) {
    std::lock_guard lock(mutex_);
    materialized_.pages = std::move(pages);
  }
  // Page `index` (from 0) finishes with `error` instead of its items.
  void failMaterializedPage(std::size_t index, std::exception_ptr error = defaultFailure()) {
    std::lock_guard lock(mutex_);
    materialized_.failingPage = index;
    materialized_.error = std::move(error);
  }
  // Page `index` (from 0) is never answered.
  void stallMaterializedPage(std::size_t index) {
    std::lock_guard lock(mutex_);
    materialized_.stalledPage = index;
  }
  // With true, each page is delivered from a new thread after
  // enumerateItems() returned; with false (the default) from inside it.
  void setDeliversFromAnotherThread(bool fromAnotherThread) {
    std::lock_guard lock(mutex_);
    materialized_.fromAnotherThread = fromAnotherThread;
  }

  // What domains() would answer, without counting as a call or failing.
  std::vector<FileProviderDomain> registeredDomains() const {
    std::lock_guard lock(mutex_);
    return registered_;
  }
  // Every successful addDomain and removeDomain, in call order.
  std::vector<FileProviderDomain> addedDomains() const {
    std::lock_guard lock(mutex_);
    return added_;
  }
  std::vector<FileProviderDomain> removedDomains() const {
    std::lock_guard lock(mutex_);
    return removed_;
  }

  // Calls of signalWorkingSet, including failed ones.
  int workingSetSignals() const {
    std::lock_guard lock(mutex_);
    return signals_;
  }
  // Waits (in real time) until at least `count` signals were made; false on
  // timeout.
  bool waitForWorkingSetSignals(int count,
                                std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    std::unique_lock lock(mutex_);
    return signalled_.wait_for(lock, timeout, [&] { return signals_ >= count; });
  }

  // Calls of materializedItemsEnumerator, including failed ones.
  int materializedEnumerations() const {
    std::lock_guard lock(mutex_);
    return enumerations_;
  }

  void addDomain(const FileProviderDomain& domain) override {
    std::lock_guard lock(mutex_);
    throwIfFailing(Operation::addDomain);
    std::erase_if(registered_, [&](const auto& d) { return d.identifier == domain.identifier; });
    registered_.push_back(domain);
    added_.push_back(domain);
  }

  // Removing a domain that is not registered fails, as it does on the platform.
  void removeDomain(const FileProviderDomain& domain) override {
    std::lock_guard lock(mutex_);
    throwIfFailing(Operation::removeDomain);
    if (std::erase_if(registered_,
                      [&](const auto& d) { return d.identifier == domain.identifier; }) == 0) {
      throw synckit::Error("No such domain: " + domain.identifier);
    }
    removed_.push_back(domain);
  }

  std::vector<FileProviderDomain> domains() override {
    std::lock_guard lock(mutex_);
    throwIfFailing(Operation::domains);
    return registered_;
  }

  std::shared_ptr<DomainManager> manager(const FileProviderDomain&) override {
    std::lock_guard lock(mutex_);
    if (!hasManager_) return nullptr;
    return std::make_shared<Domain>(*this);
  }

 private:
  struct Materialized {
    std::vector<std::vector<std::string>> pages;
    std::optional<std::size_t> failingPage;
    std::exception_ptr error;
    std::optional<std::size_t> stalledPage;
    bool fromAnotherThread = false;
  };

  class Enumerator : public ItemEnumerator {
   public:
    explicit Enumerator(Materialized materialized) : materialized_(std::move(materialized)) {
      if (materialized_.pages.empty()) materialized_.pages.emplace_back();
    }

    void enumerateItems(std::shared_ptr<EnumerationObserver> observer, const Page& page) override {
      std::optional<std::size_t> index = pageIndex(page);
      if (!index) {
        observer->finishEnumeratingWithError(
            std::make_exception_ptr(synckit::Error("Unknown page: " + page)));
        return;
      }
      if (materialized_.stalledPage == index) return;
      auto deliver = [observer, index = *index, this] { deliverPage(*observer, index); };
      if (!materialized_.fromAnotherThread) return deliver();
      std::lock_guard lock(mutex_);
      deliveries_.emplace_back(deliver);
    }

   private:
    static Page pageToken(std::size_t index) { return "page-" + std::to_string(index); }

    std::optional<std::size_t> pageIndex(const Page& page) const {
      if (page == initialPage) return 0;
      for (std::size_t index = 1; index < materialized_.pages.size(); ++index) {
        if (page == pageToken(index)) return index;
      }
      return std::nullopt;
    }

    // Reads only what the constructor set, so delivery threads need no lock.
    void deliverPage(EnumerationObserver& observer, std::size_t index) const {
      if (materialized_.failingPage == index) {
        observer.finishEnumeratingWithError(materialized_.error);
        return;
      }
      for (const std::string& identifier : materialized_.pages[index]) {
        observer.didEnumerateItems({identifier});
      }
      bool last = index + 1 == materialized_.pages.size();
      observer.finishEnumeratingUpToPage(last ? std::nullopt
                                              : std::optional<Page>(pageToken(index + 1)));
    }

    Materialized materialized_;  // set by the constructor only
    std::mutex mutex_;
    std::vector<std::jthread> deliveries_;  // joined when the enumerator goes
  };

  class Domain : public DomainManager {
   public:
    explicit Domain(FakeFileProviderManager& owner) : owner_(owner) {}

    void signalWorkingSet() override {
      std::exception_ptr failure;
      {
        std::lock_guard lock(owner_.mutex_);
        ++owner_.signals_;
        failure = owner_.failures_[index(Operation::signalWorkingSet)];
      }
      owner_.signalled_.notify_all();
      if (failure) std::rethrow_exception(failure);
    }

    std::shared_ptr<ItemEnumerator> materializedItemsEnumerator() override {
      std::lock_guard lock(owner_.mutex_);
      ++owner_.enumerations_;
      owner_.throwIfFailing(Operation::materializedItemsEnumerator);
      return std::make_shared<Enumerator>(owner_.materialized_);
    }

   private:
    FakeFileProviderManager& owner_;
  };

  static std::size_t index(Operation operation) { return static_cast<std::size_t>(operation); }

  // Requires mutex_.
  void throwIfFailing(Operation operation) const {
    if (failures_[index(operation)]) std::rethrow_exception(failures_[index(operation)]);
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable signalled_;
  std::array<std::exception_ptr, 5> failures_;  // by Operation
  bool hasManager_ = true;
  Materialized materialized_;
  std::vector<FileProviderDomain> registered_;
  std::vector<FileProviderDomain> added_;
  std::vector<FileProviderDomain> removed_;
  int signals_ = 0;
  int enumerations_ = 0;
};

}  // namespace halvark::testing
