#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "app/core/app_state.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/provider_progress.h"

namespace halvark {

// What the running instance and the command-line verbs say to each other
// over the control socket: one JSON object per line each way. A request is
// {"command": "...", ...}; the instance answers with lines of which only the
// last has "ok" (true, or false with the "error" text shown to the user).
// Before it, `sign-in` may send {"event": "authorizationURL", "url": ...}.
namespace ControlProtocol {

// A line longer than this is refused; no request or answer comes near it.
inline constexpr std::size_t maximumLineLength = 1 << 20;

inline constexpr std::string_view socketName = "control.sock";
// Beside the socket; held by the running instance from before it serves the
// socket until it has stopped completely, provider and all.
inline constexpr std::string_view instanceLockName = "control.lock";

// $XDG_RUNTIME_DIR/halvark/control.sock (the container without a runtime
// directory): beside the sync signals.
std::filesystem::path socketPath();
std::filesystem::path instanceLockPath();

// {"ok": true} with `fields` added.
nlohmann::json success(nlohmann::json fields = nlohmann::json::object());
// {"ok": false, "error": message}.
nlohmann::json failure(const std::string& message);

// Sends `message` and a line feed in full. Throws PosixError (EPIPE when
// the other end is gone); never raises SIGPIPE.
void writeLine(int fd, const nlohmann::json& message);

// Splits what arrives on a stream into lines.
class LineBuffer {
 public:
  // Reads what `fd` has (one read). False at the end of the stream. Throws
  // PosixError, and DecodingError for a line beyond maximumLineLength.
  bool fill(int fd);
  // The next complete line, without its line feed.
  std::optional<std::string> take();

 private:
  std::string pending_;
};

// The object of `halvark status --json`: session, member, errorMessage,
// state, brains (with each brain's folder from `folders`; null when it has
// none), inboxBrainId, recentSyncErrors, conflictNotices and progress (null
// unless the provider has files left). Main thread, as AppState.
nlohmann::json statusJSON(const AppState& state,
                          const std::map<synckit::Uuid, std::filesystem::path>& folders,
                          const std::optional<synckit::ProviderProgress>& progress);

}  // namespace ControlProtocol
}  // namespace halvark
