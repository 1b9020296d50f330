#include "app/platform/linux_file_provider_manager.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "synckit/base/error.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/domain_registry.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/local_index.h"

extern char** environ;

namespace halvark {
namespace {

constexpr std::string_view providerName = "halvark-provider";
constexpr int materializedPageSize = 500;

bool isExecutableFile(const std::filesystem::path& file) {
  std::error_code error;
  return std::filesystem::is_regular_file(file, error) && ::access(file.c_str(), X_OK) == 0;
}

std::optional<std::filesystem::path> findProvider() {
  const char* configured = std::getenv("HALVARK_PROVIDER_PATH");
  if (configured != nullptr && *configured != '\0') return std::filesystem::path(configured);
  std::error_code error;
  auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error && isExecutableFile(self.parent_path() / providerName)) {
    return self.parent_path() / providerName;
  }
  const char* path = std::getenv("PATH");
  for (std::string_view rest = path != nullptr ? path : ""; !rest.empty();) {
    std::string_view entry = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
    // A relative entry would make the provider depend on the working
    // directory the application happened to start in.
    std::filesystem::path directory(entry);
    if (directory.is_absolute() && isExecutableFile(directory / providerName)) {
      return directory / providerName;
    }
  }
  return std::nullopt;
}

std::vector<std::string> currentEnvironment() {
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    entries.emplace_back(*entry);
  }
  return entries;
}

FileProviderDomain asDomain(const synckit::RegisteredDomain& registered) {
  return {registered.identifier, registered.displayName};
}

// Pages through the provider's local index; a page token is the last row id
// of the page before, in decimal.
class MaterializedItemsEnumerator final : public FileProviderManager::ItemEnumerator {
 public:
  explicit MaterializedItemsEnumerator(std::filesystem::path index) : index_(std::move(index)) {}

  void enumerateItems(std::shared_ptr<FileProviderManager::EnumerationObserver> observer,
                      const FileProviderManager::Page& page) override {
    synckit::LocalIndex::Page found;
    try {
      found = synckit::LocalIndex::materializedPage(index_, afterRowId(page), materializedPageSize);
    } catch (...) {
      observer->finishEnumeratingWithError(std::current_exception());
      return;
    }
    if (!found.identifiers.empty()) observer->didEnumerateItems(std::move(found.identifiers));
    observer->finishEnumeratingUpToPage(
        found.next ? std::optional<FileProviderManager::Page>(std::to_string(*found.next))
                   : std::nullopt);
  }

 private:
  static std::int64_t afterRowId(const FileProviderManager::Page& page) {
    if (page.empty()) return 0;
    std::int64_t rowId = -1;
    auto [end, error] = std::from_chars(page.data(), page.data() + page.size(), rowId);
    if (error != std::errc() || end != page.data() + page.size() || rowId < 0) {
      throw synckit::DecodingError(
          synckit::DecodingError::Kind::dataCorrupted,
          "\u201c" + page + "\u201d is not a page of the materialized items.");
    }
    return rowId;
  }

  const std::filesystem::path index_;
};

class ProviderDomainManager final : public FileProviderManager::DomainManager {
 public:
  explicit ProviderDomainManager(std::filesystem::path index) : index_(std::move(index)) {}

  // Nobody listening is fine: a provider that is starting reads the whole
  // working set anyway.
  void signalWorkingSet() override {
    synckit::SyncSignal::post(synckit::ProviderPaths::workingSetSignalName());
  }

  std::shared_ptr<FileProviderManager::ItemEnumerator> materializedItemsEnumerator() override {
    return std::make_shared<MaterializedItemsEnumerator>(index_);
  }

 private:
  const std::filesystem::path index_;
};

}  // namespace

LinuxFileProviderManager::LinuxFileProviderManager(ProviderSupervisor::Timing timing)
    : container_(synckit::AppGroup::containerURL()),
      executable_(findProvider()),
      environment_(currentEnvironment()),
      timing_(timing),
      logger_(std::string(synckit::AppIdentity::applicationIdentifier), "domain") {}

LinuxFileProviderManager::~LinuxFileProviderManager() {
  std::lock_guard lock(lifecycle_);
  supervisor_.reset();
}

void LinuxFileProviderManager::addDomain(const FileProviderDomain& domain) {
  if (!executable_) {
    throw synckit::Error(std::string(providerName) +
                         " was not found beside the application or on PATH.");
  }
  const auto file = synckit::ProviderPaths::domainsURL(container_);
  std::lock_guard lock(lifecycle_);
  std::vector<synckit::RegisteredDomain> registered;
  try {
    registered = synckit::DomainRegistry::load(file);
  } catch (const synckit::DecodingError& error) {
    // Only this manager writes the list, so nothing of value is lost.
    logger_.error("Replacing an unreadable domain list: %s", error.what());
  }
  std::erase_if(registered, [&](const auto& r) { return r.identifier == domain.identifier; });
  registered.push_back({domain.identifier, domain.displayName});
  synckit::DomainRegistry::save(file, registered);
  logger_.info("Registered the domain %s", domain.identifier.c_str());

  if (supervisor_ && supervisor_->supervising()) return;
  supervisor_.reset();
  supervisor_ = std::make_unique<ProviderSupervisor>(
      *executable_, environment_, [file] { return !synckit::DomainRegistry::load(file).empty(); },
      timing_);
}

void LinuxFileProviderManager::removeDomain(const FileProviderDomain& domain) {
  const auto file = synckit::ProviderPaths::domainsURL(container_);
  std::lock_guard lock(lifecycle_);
  auto registered = synckit::DomainRegistry::load(file);
  if (std::erase_if(registered, [&](const auto& r) { return r.identifier == domain.identifier; }) ==
      0) {
    throw synckit::Error("No such domain: " + domain.identifier);
  }
  synckit::DomainRegistry::save(file, registered);
  logger_.info("Removed the domain %s", domain.identifier.c_str());
  if (registered.empty()) supervisor_.reset();
}

std::vector<FileProviderDomain> LinuxFileProviderManager::domains() {
  std::vector<FileProviderDomain> result;
  for (const auto& registered :
       synckit::DomainRegistry::load(synckit::ProviderPaths::domainsURL(container_))) {
    result.push_back(asDomain(registered));
  }
  return result;
}

std::shared_ptr<FileProviderManager::DomainManager> LinuxFileProviderManager::manager(
    const FileProviderDomain& domain) {
  for (const auto& registered :
       synckit::DomainRegistry::load(synckit::ProviderPaths::domainsURL(container_))) {
    if (registered.identifier == domain.identifier) {
      return std::make_shared<ProviderDomainManager>(synckit::ProviderPaths::indexURL(container_));
    }
  }
  return nullptr;
}

}  // namespace halvark
