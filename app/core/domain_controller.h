#pragma once

#include <unordered_set>

#include "app/core/file_provider_domain.h"
#include "app/core/file_provider_manager.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/logger.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/sync_item_identifier.h"

namespace halvark {

// Owns the application's one file-provider domain: registers it at sign-in
// (after refreshing the brain list), removes it at sign-out, asks the
// provider to re-read the tree when the store changed, and lists the items
// whose content is on disk.
//
// Holds no mutable state: the application model and several scheduler
// threads may call it at once. Everything it borrows must outlive it.
class DomainController {
 public:
  DomainController(synckit::MetadataStore& store, const synckit::SyncAPIClient& api,
                   synckit::TokenManager& tokenManager, FileProviderManager& manager);

  // Refreshes the brains (falling back to the stored list unless the session
  // ended), registers the domain and signals the working set when the brains
  // changed. Throws TokenManagerError::signedOut and the registration error.
  void activate();

  // Removes the domain when it is registered; failures are only logged.
  void deactivate();

  // Failures, and a domain the system has no manager for, are only logged.
  void signalWorkingSet();

  // Fetches the brain list and stores it; true when the stored list changed.
  bool refreshBrains();

  // The items whose content is on disk; empty when they cannot be listed.
  // Throws only CancellationError, when the current thread's stop is requested.
  std::unordered_set<synckit::SyncItemIdentifier> materializedIdentifiers();

  const FileProviderDomain& domain() const noexcept { return domain_; }

 private:
  const FileProviderDomain domain_;
  synckit::MetadataStore& store_;
  const synckit::SyncAPIClient& api_;
  synckit::TokenManager& tokenManager_;
  FileProviderManager& manager_;
  const synckit::Logger logger_;
};

}  // namespace halvark
