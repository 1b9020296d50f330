#pragma once

#include <string_view>

namespace synckit {

// Build-time identity of the product. Every identifier the system derives
// (application-group container, keychain access group, log subsystem,
// sync-now signal name) starts from these.
namespace AppIdentity {

// The developer team's 10-character identifier.
inline constexpr std::string_view teamPrefix = "HVK7Q2M4RZ";
// The application's reverse-DNS identifier.
inline constexpr std::string_view applicationIdentifier = "dev.halvark.Halvark";
// The sync service's origin, used when no override is configured.
inline constexpr std::string_view defaultBaseURL = "https://sync.halvark.dev";

}  // namespace AppIdentity
}  // namespace synckit
