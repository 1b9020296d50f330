#include "app/core/domain_controller.h"

#include <string>
#include <vector>

#include "app/core/materialized_items_collector.h"
#include "synckit/auth/brain_grants.h"
#include "synckit/auth/token_manager_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/platform/app_identity.h"

namespace halvark {

DomainController::DomainController(synckit::MetadataStore& store, const synckit::SyncAPIClient& api,
                                   synckit::TokenManager& tokenManager,
                                   FileProviderManager& manager)
    : domain_{"halvark", "Halvark"},
      store_(store),
      api_(api),
      tokenManager_(tokenManager),
      manager_(manager),
      logger_(std::string(synckit::AppIdentity::applicationIdentifier), "domain") {}

void DomainController::activate() {
  bool changed = false;
  try {
    changed = refreshBrains();
  } catch (const std::exception& error) {
    // A session that ended must stop the sign-in; anything else leaves the
    // stored brains good enough to show.
    auto* session = dynamic_cast<const synckit::TokenManagerError*>(&error);
    if (session && session->kind() == synckit::TokenManagerError::Kind::signedOut) throw;
    logger_.error("Could not refresh brains, using the stored list: %s", error.what());
  }
  manager_.addDomain(domain_);
  if (changed) signalWorkingSet();
}

void DomainController::deactivate() {
  try {
    for (const FileProviderDomain& registered : manager_.domains()) {
      if (registered.identifier == domain_.identifier) {
        manager_.removeDomain(registered);
        return;
      }
    }
  } catch (const std::exception& error) {
    logger_.error("Could not remove the domain: %s", error.what());
  }
}

void DomainController::signalWorkingSet() {
  try {
    std::shared_ptr<FileProviderManager::DomainManager> domainManager = manager_.manager(domain_);
    if (!domainManager) {
      logger_.error("No file provider manager for the domain; working set not signalled");
      return;
    }
    domainManager->signalWorkingSet();
  } catch (const std::exception& error) {
    logger_.error("Could not signal the working set: %s", error.what());
  }
}

bool DomainController::refreshBrains() {
  std::vector<synckit::Brain> brains =
      tokenManager_.withAuthRetry([this] { return api_.listBrains(); });
  return synckit::BrainGrants::apply(brains, store_);
}

std::unordered_set<synckit::SyncItemIdentifier> DomainController::materializedIdentifiers() {
  std::vector<std::string> collected;
  try {
    std::shared_ptr<FileProviderManager::DomainManager> domainManager = manager_.manager(domain_);
    if (!domainManager) {
      logger_.error("No file provider manager; treating nothing as materialized");
      return {};
    }
    collected = MaterializedItemsCollector(domainManager->materializedItemsEnumerator()).collect();
  } catch (const synckit::CancellationError& error) {
    // Only our own stop ends the caller's work; a provider that gave up is
    // just a failed listing.
    if (synckit::isCancelled()) throw;
    logger_.error("Could not list materialized items: %s", error.what());
    return {};
  } catch (const std::exception& error) {
    logger_.error("Could not list materialized items: %s", error.what());
    return {};
  }
  std::unordered_set<synckit::SyncItemIdentifier> identifiers;
  for (const std::string& text : collected) {
    if (auto identifier = synckit::SyncItemIdentifier::parse(text)) {
      identifiers.insert(std::move(*identifier));
    }
  }
  return identifiers;
}

}  // namespace halvark
