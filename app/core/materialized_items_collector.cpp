#include "app/core/materialized_items_collector.h"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"

namespace halvark {

// Outlives collect() when the enumerator still holds it: answers that arrive
// after the caller stopped waiting are dropped here.
class MaterializedItemsCollector::Observer : public FileProviderManager::EnumerationObserver {
 public:
  void expectPage() {
    std::lock_guard lock(mutex_);
    awaitingPage_ = true;
    nextPage_.reset();
  }

  void didEnumerateItems(std::vector<std::string> identifiers) override {
    std::lock_guard lock(mutex_);
    if (!awaitingPage_) return;
    identifiers_.insert(identifiers_.end(), std::make_move_iterator(identifiers.begin()),
                        std::make_move_iterator(identifiers.end()));
  }

  void finishEnumeratingUpToPage(std::optional<FileProviderManager::Page> nextPage) override {
    {
      std::lock_guard lock(mutex_);
      if (!awaitingPage_) return;
      awaitingPage_ = false;
      nextPage_ = std::move(nextPage);
    }
    pageEnded_.notify_all();
  }

  void finishEnumeratingWithError(std::exception_ptr error) override {
    {
      std::lock_guard lock(mutex_);
      if (!awaitingPage_) return;
      awaitingPage_ = false;
      error_ = error ? std::move(error)
                     : std::make_exception_ptr(synckit::Error("The enumeration failed."));
    }
    pageEnded_.notify_all();
  }

  // Waits for the page asked for last to end and returns where the next one
  // starts. After a stop or an error nothing more is accepted.
  std::optional<FileProviderManager::Page> awaitPageEnd() {
    std::unique_lock lock(mutex_);
    if (!pageEnded_.wait(lock, synckit::currentStopToken(), [this] { return !awaitingPage_; })) {
      awaitingPage_ = false;
      throw synckit::CancellationError();
    }
    if (error_) std::rethrow_exception(error_);
    return std::move(nextPage_);
  }

  std::vector<std::string> takeIdentifiers() {
    std::lock_guard lock(mutex_);
    return std::move(identifiers_);
  }

 private:
  std::mutex mutex_;
  std::condition_variable_any pageEnded_;
  bool awaitingPage_ = false;
  std::vector<std::string> identifiers_;
  std::optional<FileProviderManager::Page> nextPage_;
  std::exception_ptr error_;
};

MaterializedItemsCollector::MaterializedItemsCollector(
    std::shared_ptr<FileProviderManager::ItemEnumerator> enumerator)
    : enumerator_(std::move(enumerator)) {}

std::vector<std::string> MaterializedItemsCollector::collect() {
  synckit::checkCancellation();
  if (!enumerator_) return {};  // a provider that cannot list anything
  auto observer = std::make_shared<Observer>();
  // The next page is asked for here rather than from the finishing callback,
  // so that an enumerator answering synchronously does not nest one call per
  // page and a delivery thread never calls back into the enumerator.
  std::optional<FileProviderManager::Page> page = FileProviderManager::initialPage;
  while (page) {
    observer->expectPage();
    enumerator_->enumerateItems(observer, *page);
    page = observer->awaitPageEnd();
  }
  return observer->takeIdentifiers();
}

}  // namespace halvark
