#pragma once

#include <string_view>

namespace synckit {

// The fixed keys of the store's meta table.
namespace MetaKey {

// The registered OAuth client's identifier.
inline constexpr std::string_view clientId = "client_id";
// This machine's device registration.
inline constexpr std::string_view deviceId = "device_id";
inline constexpr std::string_view deviceName = "device_name";
// The UUID text of the inbox brain.
inline constexpr std::string_view inboxBrainId = "inbox_brain_id";
// Conflict events waiting to be shown.
inline constexpr std::string_view conflictEvents = "conflict_events";
// Sync errors found by the file provider, waiting to be shown.
inline constexpr std::string_view syncErrors = "sync_errors";

}  // namespace MetaKey
}  // namespace synckit
