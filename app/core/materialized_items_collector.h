#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/core/file_provider_manager.h"

namespace halvark {

// Lists every item an enumerator reports, page by page, and hands the whole
// list to one waiting caller. One collect() per collector; any thread.
class MaterializedItemsCollector {
 public:
  explicit MaterializedItemsCollector(
      std::shared_ptr<FileProviderManager::ItemEnumerator> enumerator);

  // Blocks until the last page has been delivered and returns the identifiers
  // of all pages in delivery order. Throws the enumeration's error, or
  // CancellationError when the current thread's stop is requested meanwhile.
  std::vector<std::string> collect();

 private:
  class Observer;

  std::shared_ptr<FileProviderManager::ItemEnumerator> enumerator_;
};

}  // namespace halvark
