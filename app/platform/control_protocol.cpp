#include "app/platform/control_protocol.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "synckit/base/error.h"
#include "synckit/platform/sync_signal.h"

namespace halvark::ControlProtocol {
namespace {

using nlohmann::json;

json optionalText(const std::optional<std::string>& text) {
  return text ? json(*text) : json(nullptr);
}

std::string_view stateName(AggregateState::Kind kind) {
  switch (kind) {
    case AggregateState::Kind::idle:
      return "idle";
    case AggregateState::Kind::syncing:
      return "syncing";
    case AggregateState::Kind::error:
      return "error";
  }
  return "idle";
}

std::string_view stateName(synckit::BrainSyncStatus::State::Kind kind) {
  using Kind = synckit::BrainSyncStatus::State::Kind;
  switch (kind) {
    case Kind::idle:
      return "idle";
    case Kind::syncing:
      return "syncing";
    case Kind::error:
      return "error";
  }
  return "idle";
}

}  // namespace

std::filesystem::path socketPath() {
  return synckit::SyncSignal::socketDirectory() / "control.sock";
}

std::filesystem::path instanceLockPath() {
  return synckit::SyncSignal::socketDirectory() / "control.lock";
}

json success(json fields) {
  fields["ok"] = true;
  return fields;
}

json failure(const std::string& message) { return {{"ok", false}, {"error", message}}; }

void writeLine(int fd, const json& message) {
  // Invalid UTF-8 from a file name or a server message must not make the
  // whole answer fail.
  std::string line = message.dump(-1, ' ', false, json::error_handler_t::replace);
  line.push_back('\n');
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t sent = ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      throw synckit::PosixError(errno);
    }
    rest.remove_prefix(static_cast<std::size_t>(sent));
  }
}

bool LineBuffer::fill(int fd) {
  char chunk[4096];
  for (;;) {
    const ssize_t received = ::read(fd, chunk, sizeof chunk);
    if (received < 0) {
      if (errno == EINTR) continue;
      throw synckit::PosixError(errno);
    }
    if (received == 0) return false;
    pending_.append(chunk, static_cast<std::size_t>(received));
    if (pending_.size() > maximumLineLength && pending_.find('\n') == std::string::npos) {
      throw synckit::DecodingError(synckit::DecodingError::Kind::dataCorrupted,
                                   "A control message is too long.");
    }
    return true;
  }
}

std::optional<std::string> LineBuffer::take() {
  const auto end = pending_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = pending_.substr(0, end);
  pending_.erase(0, end + 1);
  return line;
}

json statusJSON(const AppState& state,
                const std::map<synckit::Uuid, std::filesystem::path>& folders,
                const std::optional<synckit::ProviderProgress>& progress) {
  const Session& session = state.session();
  json brains = json::array();
  for (const auto& status : state.brainStatuses()) {
    const auto folder = folders.find(status.brainId);
    brains.push_back({
        {"id", status.brainId.toString()},
        {"name", status.name},
        {"folder", folder != folders.end() ? json(folder->second.string()) : json(nullptr)},
        {"state", stateName(status.state.kind())},
        {"lastSyncAt", status.lastSyncAt ? json(status.lastSyncAt->toString()) : json(nullptr)},
        {"uploadErrorCount", status.pendingErrorCount},
        {"error", optionalText(status.state.errorText())},
    });
  }
  json notices = json::array();
  for (const auto& notice : state.conflictNotices()) {
    notices.push_back({{"message", notice.message},
                       {"at", notice.at.toString()},
                       {"kind", synckit::toString(notice.kind)}});
  }
  json shownProgress = nullptr;
  if (progress && !progress->idle && progress->filesRemaining > 0) {
    shownProgress = {{"filesLeft", progress->filesRemaining},
                     {"bytesLeft", progress->bytesRemaining}};
  }
  const auto& inbox = state.inboxBrainId();
  return {
      {"session", toString(session.kind())},
      {"member", optionalText(session.memberLabel())},
      {"errorMessage", optionalText(state.errorMessage())},
      {"state", stateName(state.aggregateState().kind)},
      {"brains", std::move(brains)},
      {"inboxBrainId", inbox ? json(inbox->toString()) : json(nullptr)},
      {"recentSyncErrors", state.recentSyncErrors()},
      {"conflictNotices", std::move(notices)},
      {"progress", std::move(shownProgress)},
  };
}

}  // namespace halvark::ControlProtocol
