#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "synckit/platform/shared_defaults.h"

namespace synckit {

// Where the system's shared state lives and which service it talks to. Holds
// no state of its own; every function reads the environment when called.
//
// The container is $HALVARK_CONTAINER when set, else $XDG_DATA_HOME/halvark
// (~/.local/share/halvark by default).
namespace AppGroup {

inline constexpr std::string_view baseURLOverrideKey = "HVBaseURLOverride";

// Team prefix, ".", application identifier.
std::string identifier();
// Team prefix, ".", application identifier, ".shared".
std::string keychainAccessGroup();

// The shared container directory; throws
// MetadataStoreError::containerUnavailable(identifier()) when there is none
// (no HALVARK_CONTAINER, XDG_DATA_HOME or HOME to derive it from).
std::filesystem::path containerURL();

// container/Library/Application Support/Halvark/sync.sqlite (pure).
std::filesystem::path databaseURL(const std::filesystem::path& container);
// container/Library/Application Support/Halvark/Spool (pure).
std::filesystem::path spoolDirectory(const std::filesystem::path& container);
// The same locations below containerURL(); nothing is created on disk.
std::filesystem::path databaseURL();
std::filesystem::path executionLockURL();
std::filesystem::path spoolDirectory();
// container/Library/Application Support/Halvark/tokens.json: where the
// token pair is kept when no Secret Service answers.
std::filesystem::path tokenFileURL();

// The shared user defaults ($XDG_CONFIG_HOME/halvark/defaults.json); absent
// when no configuration directory can be derived.
std::optional<SharedDefaults> sharedDefaults();

// The service base URL: the "HVBaseURLOverride" default resolved by
// resolveBaseURL, or the built-in default.
std::string baseURL();
// The override when it is a usable http(s) URL with a host (trimmed, scheme
// compared case-insensitively), else the built-in default.
std::string resolveBaseURL(const std::optional<std::string>& override);

}  // namespace AppGroup
}  // namespace synckit
