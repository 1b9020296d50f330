#include "synckit/platform/provider_paths.h"

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "synckit/base/error.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"

namespace synckit::ProviderPaths {
namespace {

std::optional<std::filesystem::path> absolutePath(std::string_view text) {
  std::filesystem::path path(text);
  if (text.empty() || !path.is_absolute()) return std::nullopt;
  return path;
}

std::optional<std::filesystem::path> environmentPath(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? absolutePath(value) : std::nullopt;
}

// The same directory as the store's database, so that a container moved or
// wiped as a whole takes the provider's state with it.
std::filesystem::path applicationSupport(const std::filesystem::path& container) {
  return AppGroup::databaseURL(container).parent_path();
}

}  // namespace

std::filesystem::path mirrorFolder() {
  if (auto explicitMirror = environmentPath("HALVARK_MIRROR")) return *explicitMirror;
  if (auto defaults = AppGroup::sharedDefaults()) {
    if (auto configured = defaults->string(mirrorFolderKey)) {
      if (auto path = absolutePath(*configured)) return *path;
    }
  }
  if (auto home = environmentPath("HOME")) return *home / "Halvark";
  throw PosixError(ENOENT);
}

std::filesystem::path indexURL(const std::filesystem::path& container) {
  return applicationSupport(container) / "provider-index.sqlite";
}

std::filesystem::path domainsURL(const std::filesystem::path& container) {
  return applicationSupport(container) / "domains.json";
}

std::filesystem::path progressURL(const std::filesystem::path& container) {
  return applicationSupport(container) / "provider-progress.json";
}

std::filesystem::path instanceLockURL(const std::filesystem::path& container) {
  return applicationSupport(container) / "provider.lock";
}

std::string workingSetSignalName() {
  return std::string(AppIdentity::applicationIdentifier) + ".working-set";
}

}  // namespace synckit::ProviderPaths
