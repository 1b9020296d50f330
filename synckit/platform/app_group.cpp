#include "synckit/platform/app_group.h"

#include <cstdlib>

#include "synckit/base/metadata_store_error.h"
#include "synckit/base/url.h"
#include "synckit/base/utf8_text.h"
#include "synckit/platform/app_identity.h"

namespace synckit::AppGroup {
namespace {

std::optional<std::filesystem::path> environmentPath(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::filesystem::path(value);
}

// XDG base directories must be absolute; a relative value is ignored as if
// it were unset, so that files never land relative to the working directory.
std::optional<std::filesystem::path> xdgDirectory(const char* variable, const char* homeRelative) {
  if (auto value = environmentPath(variable); value && value->is_absolute()) return value;
  if (auto home = environmentPath("HOME"); home && home->is_absolute()) return *home / homeRelative;
  return std::nullopt;
}

// Every fixed file of the container lives in this one directory.
std::filesystem::path applicationSupport(const std::filesystem::path& container) {
  return container / "Library" / "Application Support" / "Halvark";
}

}  // namespace

std::string identifier() {
  return std::string(AppIdentity::teamPrefix) + "." +
         std::string(AppIdentity::applicationIdentifier);
}

std::string keychainAccessGroup() { return identifier() + ".shared"; }

std::filesystem::path containerURL() {
  if (auto explicitContainer = environmentPath("HALVARK_CONTAINER")) return *explicitContainer;
  if (auto dataHome = xdgDirectory("XDG_DATA_HOME", ".local/share")) return *dataHome / "halvark";
  throw MetadataStoreError::containerUnavailable(identifier());
}

std::filesystem::path spoolDirectory(const std::filesystem::path& container) {
  return applicationSupport(container) / "Spool";
}

std::filesystem::path databaseURL(const std::filesystem::path& container) {
  return applicationSupport(container) / "sync.sqlite";
}

std::filesystem::path databaseURL() { return databaseURL(containerURL()); }

std::filesystem::path executionLockURL() {
  return databaseURL().parent_path() / "sync-execution.lock";
}

std::filesystem::path spoolDirectory() { return spoolDirectory(containerURL()); }

std::filesystem::path tokenFileURL() { return applicationSupport(containerURL()) / "tokens.json"; }

std::optional<SharedDefaults> sharedDefaults() {
  auto configHome = xdgDirectory("XDG_CONFIG_HOME", ".config");
  if (!configHome) return std::nullopt;
  return SharedDefaults(*configHome / "halvark" / "defaults.json");
}

std::string baseURL() {
  std::optional<std::string> override;
  if (auto defaults = sharedDefaults()) override = defaults->string(baseURLOverrideKey);
  return resolveBaseURL(override);
}

std::string resolveBaseURL(const std::optional<std::string>& override) {
  const std::string fallback(AppIdentity::defaultBaseURL);
  if (!override) return fallback;
  std::string_view text = trimmedWhitespace(*override);
  if (text.empty()) return fallback;
  auto url = URLComponents::parse(text);
  if (!url || !url->scheme) return fallback;
  std::string scheme = asciiLowercased(*url->scheme);
  if (scheme != "http" && scheme != "https") return fallback;
  if (!url->host || url->host->empty()) return fallback;
  return std::string(text);
}

}  // namespace synckit::AppGroup
