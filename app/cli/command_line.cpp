#include "app/cli/command_line.h"

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "app/core/status_text.h"
#include "app/platform/control_client.h"
#include "app/platform/control_protocol.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/file_lock.h"

namespace halvark::CommandLine {
namespace {

using nlohmann::json;
using Verb = Invocation::Verb;

// How long `quit` waits for the instance to be gone, provider and all.
constexpr std::chrono::seconds quitTimeout{30};

// Sends one request and reports the outcome: `done` on `out` when it
// succeeded, the error on `err` otherwise.
int ask(const std::filesystem::path& socket, const json& request, const std::string& done,
        Terminal& terminal) {
  const json answer = ControlClient(socket).request(request);
  if (answer.value("ok", false)) {
    if (!done.empty()) terminal.out << done << '\n';
    return 0;
  }
  terminal.err << answer.value("error", "Halvark refused the request.") << '\n';
  return 1;
}

std::string quoted(const std::string& text) { return "\u201c" + text + "\u201d"; }

// True once the instance behind `socket` has released its lock, which it
// does last of all.
bool waitUntilStopped(const std::filesystem::path& socket) {
  const auto lock = socket.parent_path() / ControlProtocol::instanceLockName;
  const auto deadline = std::chrono::steady_clock::now() + quitTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (synckit::FileLock::tryLock(lock)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

// Hands each line of `pending` that holds a URL to the instance.
void deliverPastedLines(std::string& pending, const std::filesystem::path& socket,
                        Terminal& terminal) {
  for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
    std::string line = pending.substr(0, end);
    pending.erase(0, end + 1);
    line.erase(0, line.find_first_not_of(" \t\r"));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    if (line.empty()) continue;
    const json answer = ControlClient(socket).request({{"command", "open-url"}, {"url", line}});
    if (!answer.value("ok", false)) terminal.err << answer.value("error", "") << '\n';
  }
}

int signIn(const Invocation& invocation, const std::filesystem::path& socket, Terminal& terminal) {
  ControlClient client(socket);
  client.send({{"command", "sign-in"}, {"noBrowser", invocation.noBrowser}});
  // Nothing can be pasted before the address was shown.
  bool reading = false;
  std::string pasted;
  for (;;) {
    std::vector<int> interrupts;
    if (terminal.interrupt >= 0) interrupts.push_back(terminal.interrupt);
    if (reading) interrupts.push_back(terminal.input);
    if (auto line = client.receive(interrupts)) {
      if (line->contains("ok")) {
        if (line->value("ok", false)) {
          terminal.out << "Signed in as " << line->value("member", "") << ".\n";
          return 0;
        }
        terminal.err << line->value("error", "The sign-in failed.") << '\n';
        return 1;
      }
      if (line->value("event", "") == "authorizationURL") {
        terminal.err << "Open this address in a browser and sign in; then paste here the "
                        "halvark:// address the browser is sent to:\n";
        terminal.out << line->value("url", "") << std::endl;
        reading = invocation.noBrowser && terminal.input >= 0;
      }
      continue;
    }
    pollfd ready{terminal.interrupt, POLLIN, 0};
    if (terminal.interrupt >= 0 && ::poll(&ready, 1, 0) == 1) {
      // Cancelling is what the user asked for, not a failure to report.
      try {
        ControlClient(socket).request({{"command", "cancel-sign-in"}});
      } catch (const std::exception&) {
      }
      return 130;
    }
    char chunk[4096];
    const ssize_t count = ::read(terminal.input, chunk, sizeof chunk);
    if (count > 0) {
      pasted.append(chunk, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      pasted.push_back('\n');  // the last line, unterminated
      reading = false;
    }
    deliverPastedLines(pasted, socket, terminal);
  }
}

int status(const Invocation& invocation, const std::filesystem::path& socket, Terminal& terminal) {
  const json answer = ControlClient(socket).request({{"command", "status"}});
  if (!answer.value("ok", false)) {
    terminal.err << answer.value("error", "Halvark refused the request.") << '\n';
    return 1;
  }
  if (invocation.json) {
    terminal.out << answer["status"].dump(2, ' ', false, json::error_handler_t::replace) << '\n';
  } else {
    terminal.out << statusText(answer["status"], synckit::Timestamp::now());
  }
  return 0;
}

std::string textOr(const json& value, const std::string& fallback) {
  return value.is_string() ? value.get<std::string>() : fallback;
}

synckit::BrainSyncStatus brainStatus(const json& brain) {
  synckit::BrainSyncStatus status;
  status.brainId =
      synckit::Uuid::parse(textOr(brain.value("id", json()), "")).value_or(status.brainId);
  status.name = textOr(brain.value("name", json()), "");
  const std::string state = textOr(brain.value("state", json()), "idle");
  if (state == "syncing") {
    status.state = synckit::BrainSyncStatus::State::syncing();
  } else if (state == "error") {
    status.state = synckit::BrainSyncStatus::State::error(textOr(brain.value("error", json()), ""));
  }
  status.lastSyncAt = synckit::Timestamp::parse(textOr(brain.value("lastSyncAt", json()), ""));
  status.pendingErrorCount = brain.value("uploadErrorCount", std::int64_t{0});
  return status;
}

}  // namespace

std::variant<Invocation, int> parse(const std::vector<std::string>& arguments, std::ostream& out,
                                    std::ostream& err) {
  CLI::App app(
      "Halvark keeps your brains in step with folders on this computer. Without a "
      "command it runs in the system tray.",
      "halvark");
  app.set_version_flag("--version", StatusText::versionLine(HALVARK_VERSION, HALVARK_BUILD));
  app.require_subcommand(0, 1);
  Invocation invocation;

  auto* daemon = app.add_subcommand("daemon", "Run Halvark without the tray (servers, systemd)");
  auto* signIn = app.add_subcommand("sign-in", "Sign in through the browser and wait until done");
  signIn->add_flag("--no-browser", invocation.noBrowser,
                   "Print the sign-in address instead of opening a browser, and read the "
                   "halvark:// address it leads to from standard input");
  auto* openURL = app.add_subcommand("open-url", "Hand a halvark:// address to Halvark");
  openURL->add_option("url", invocation.argument, "The address")->required();
  auto* status = app.add_subcommand("status", "Show the account, the brains and the sync state");
  status->add_flag("--json", invocation.json, "Print one JSON object");
  auto* syncNow = app.add_subcommand("sync-now", "Sync every brain now");
  auto* resync = app.add_subcommand("resync", "Sync a brain again from the start");
  resync->add_option("brain", invocation.argument, "The brain's name or id")->required();
  auto* inbox = app.add_subcommand("inbox", "Choose the brain for new files at the top");
  inbox->add_option("brain", invocation.argument, "The brain's name or id, or none")->required();
  auto* signOut = app.add_subcommand("sign-out", "Sign out; the files stay");
  auto* quit = app.add_subcommand("quit", "Stop Halvark and its file provider");

  // CLI11 takes the arguments last first.
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err);
  }
  const std::pair<CLI::App*, Verb> verbs[] = {
      {daemon, Verb::daemon}, {signIn, Verb::signIn},   {openURL, Verb::openURL},
      {status, Verb::status}, {syncNow, Verb::syncNow}, {resync, Verb::resync},
      {inbox, Verb::inbox},   {signOut, Verb::signOut}, {quit, Verb::quit},
  };
  for (const auto& [subcommand, verb] : verbs) {
    if (subcommand->parsed()) invocation.verb = verb;
  }
  return invocation;
}

int run(const Invocation& invocation, const std::filesystem::path& socket, Terminal terminal) {
  try {
    switch (invocation.verb) {
      case Verb::signIn:
        return signIn(invocation, socket, terminal);
      case Verb::openURL:
        return ask(socket, {{"command", "open-url"}, {"url", invocation.argument}}, "", terminal);
      case Verb::status:
        return status(invocation, socket, terminal);
      case Verb::syncNow:
        return ask(socket, {{"command", "sync-now"}}, "Syncing every brain now.", terminal);
      case Verb::resync:
        return ask(socket, {{"command", "resync"}, {"brain", invocation.argument}},
                   "Syncing " + quoted(invocation.argument) + " again from the start.", terminal);
      case Verb::inbox: {
        const bool none = invocation.argument == "none";
        return ask(
            socket,
            {{"command", "inbox"}, {"brain", none ? json(nullptr) : json(invocation.argument)}},
            none ? "No inbox brain." : "Inbox brain: " + invocation.argument + ".", terminal);
      }
      case Verb::signOut:
        return ask(socket, {{"command", "sign-out"}}, "Signed out.", terminal);
      case Verb::quit:
        if (const int status = ask(socket, {{"command", "quit"}}, "", terminal); status != 0)
          return status;
        if (!waitUntilStopped(socket)) {
          terminal.err << "Halvark did not stop in time.\n";
          return 1;
        }
        terminal.out << "Halvark has quit.\n";
        return 0;
      case Verb::tray:
      case Verb::daemon:
        break;
    }
    terminal.err << "This command does not talk to a running Halvark.\n";
    return 2;
  } catch (const std::exception& error) {
    terminal.err << error.what() << '\n';
    return 1;
  }
}

std::string statusText(const json& status, synckit::Timestamp now) {
  std::string text;
  const auto line = [&text](int indent, const std::string& content) {
    text.append(static_cast<std::size_t>(indent), ' ').append(content).push_back('\n');
  };
  const std::string session = textOr(status.value("session", json()), "signedOut");
  if (session == "signedIn") {
    line(0, "Signed in: " + textOr(status.value("member", json()), ""));
  } else if (session == "signingIn") {
    line(0, "Signing in\u2026");
  } else {
    line(0, "Signed out");
  }
  if (status.value("errorMessage", json()).is_string()) line(0, status["errorMessage"]);

  if (session == "signedIn") {
    const json brains = status.value("brains", json::array());
    AggregateState aggregate;
    const std::string state = textOr(status.value("state", json()), "idle");
    if (state == "syncing") aggregate.kind = AggregateState::Kind::syncing;
    if (state == "error") {
      aggregate.kind = AggregateState::Kind::error;
      const auto failed = std::find_if(brains.begin(), brains.end(), [](const json& brain) {
        return brain.value("state", json()) == "error";
      });
      if (failed != brains.end()) aggregate.errorText = textOr(failed->value("error", json()), "");
    }
    line(0, StatusText::statusLine(aggregate));
    const json progress = status.value("progress", json());
    if (progress.is_object()) {
      synckit::ProviderProgress left;
      left.filesRemaining = progress.value("filesLeft", std::int64_t{0});
      left.bytesRemaining = progress.value("bytesLeft", std::int64_t{0});
      left.idle = false;
      if (auto text = StatusText::progressLine(left)) line(0, *text);
    }
    std::string inboxName = "none";
    for (const json& brain : brains) {
      const auto row = brainStatus(brain);
      line(2, StatusText::brainTitle(row, now));
      line(6, textOr(brain.value("folder", json()), "(no folder)"));
      line(6, StatusText::statusLine(row.state));
      if (brain.value("id", json()) == status.value("inboxBrainId", json())) inboxName = row.name;
    }
    line(0, "Inbox brain: " + inboxName);
  }

  const json errors = status.value("recentSyncErrors", json::array());
  if (!errors.empty()) {
    line(0, "Recent sync errors:");
    for (const json& error : errors) line(2, textOr(error, ""));
  }
  const json notices = status.value("conflictNotices", json::array());
  if (!notices.empty()) {
    line(0, "Conflicts:");
    for (const json& notice : notices) {
      const auto at = synckit::Timestamp::parse(textOr(notice.value("at", json()), ""));
      line(2, (at ? StatusText::relativeTime(*at, now) + ": " : std::string()) +
                  textOr(notice.value("message", json()), ""));
    }
  }
  return text;
}

}  // namespace halvark::CommandLine
