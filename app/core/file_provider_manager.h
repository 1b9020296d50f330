#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/core/file_provider_domain.h"

namespace halvark {

// The platform's file-provider service: registers and removes domains and
// talks to the provider that serves one. On Linux the provider is a separate
// process, so every call may block on it and answers may arrive on other
// threads. Any operation may throw (a synckit::Error or whatever the
// implementation uses); implementations are safe to call from any thread.
class FileProviderManager {
 public:
  // An opaque position in an enumeration, chosen by the enumerator.
  using Page = std::string;
  // Where every enumeration starts.
  static inline const Page initialPage{};

  // Receives one page of an enumeration: didEnumerateItems zero or more
  // times, then exactly one of the two finish calls. Calls may come from any
  // thread, also from inside ItemEnumerator::enumerateItems.
  class EnumerationObserver {
   public:
    virtual ~EnumerationObserver() = default;
    // Item identifiers in the provider's string form.
    virtual void didEnumerateItems(std::vector<std::string> identifiers) = 0;
    // The page is complete; `nextPage` is where the next one starts, absent
    // after the last page.
    virtual void finishEnumeratingUpToPage(std::optional<Page> nextPage) = 0;
    virtual void finishEnumeratingWithError(std::exception_ptr error) = 0;
  };

  class ItemEnumerator {
   public:
    virtual ~ItemEnumerator() = default;
    // Starts listing `page` for `observer`. The enumerator keeps the observer
    // alive for as long as it may still call it, so a caller that stops
    // waiting need not wait for a late answer.
    virtual void enumerateItems(std::shared_ptr<EnumerationObserver> observer,
                                const Page& page) = 0;
  };

  // The provider side of one domain.
  class DomainManager {
   public:
    virtual ~DomainManager() = default;
    // Asks the provider to re-read the working set (everything it shows);
    // returns once the request was delivered.
    virtual void signalWorkingSet() = 0;
    // Lists the items whose content is present on disk; null when the
    // provider can list none (treated as an empty list).
    virtual std::shared_ptr<ItemEnumerator> materializedItemsEnumerator() = 0;
  };

  virtual ~FileProviderManager() = default;

  // Each returns once the system has done it. Adding a registered domain
  // again updates it.
  virtual void addDomain(const FileProviderDomain& domain) = 0;
  virtual void removeDomain(const FileProviderDomain& domain) = 0;
  virtual std::vector<FileProviderDomain> domains() = 0;

  // The provider side of `domain`; null when the system has none for it.
  virtual std::shared_ptr<DomainManager> manager(const FileProviderDomain& domain) = 0;
};

}  // namespace halvark
