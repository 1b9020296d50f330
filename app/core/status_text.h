#pragma once

#include <optional>
#include <string>

#include "app/core/app_state.h"
#include "synckit/base/timestamp.h"
#include "synckit/engine/brain_sync_status.h"
#include "synckit/platform/provider_progress.h"

namespace halvark {

// The texts the tray menu and `halvark status` show for the sync state. Pure
// functions; any thread.
namespace StatusText {

// "Up to date", "Syncing…" or "Sync error: {message}".
std::string statusLine(const AggregateState& state);
// The same three texts for one brain.
std::string statusLine(const synckit::BrainSyncStatus::State& state);

// "{name} — {last sync}" then " — Syncing…" or " — Error", then " — ⚠ {n}"
// for n ≥ 1 nodes with upload errors. The last sync is relativeTime() of it,
// or "Not synced yet".
std::string brainTitle(const synckit::BrainSyncStatus& status, synckit::Timestamp now);

// A past moment relative to now, in English: "now" (under 1 s),
// "5 seconds ago", "1 minute ago", "3 hours ago", "yesterday", "4 days ago",
// "2 weeks ago", "1 month ago", "2 years ago"; a moment in the future reads
// "in 5 minutes".
std::string relativeTime(synckit::Timestamp then, synckit::Timestamp now);

// "Downloading 3 files (2.5 MB) left" while the file provider has files
// left to download; absent when it is idle or has published nothing.
std::optional<std::string> progressLine(const std::optional<synckit::ProviderProgress>& progress);

// "Halvark {version} ({build})", "?" for a part that is not known.
std::string versionLine(const std::string& version, const std::string& build);

}  // namespace StatusText
}  // namespace halvark
