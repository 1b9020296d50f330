#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "synckit/base/timestamp.h"

namespace halvark {

// The `halvark` command line: no verb starts the tray application; `daemon`
// the headless instance; the other verbs (sign-in, open-url, status,
// sync-now, resync, inbox, sign-out, quit) talk to the running instance over
// its control socket and exit non-zero when none runs. Scripts, the desktop
// entry and users depend on these names, options and exit statuses.
namespace CommandLine {

// What the command line asks for.
struct Invocation {
  enum class Verb { tray, daemon, signIn, openURL, status, syncNow, resync, inbox, signOut, quit };
  Verb verb = Verb::tray;
  bool noBrowser = false;  // sign-in
  bool json = false;       // status
  std::string argument;    // open-url's URL, resync's and inbox's brain
  bool operator==(const Invocation&) const = default;
};

// Where a verb talks to the user.
struct Terminal {
  std::ostream& out;
  std::ostream& err;
  // Callback URLs pasted during `sign-in --no-browser`, a line each.
  int input = 0;
  // Readable when the user interrupts (Ctrl-C); -1 for none.
  int interrupt = -1;
};

// The invocation of `arguments` (without the program name), or the exit
// status when there is nothing to run: help or the version was printed to
// `out`, or a usage error to `err`.
std::variant<Invocation, int> parse(const std::vector<std::string>& arguments, std::ostream& out,
                                    std::ostream& err);

// Runs a verb that talks to the instance serving `socket` (not tray or
// daemon); returns the exit status. "Halvark is not running." on `err` and
// 1 when no instance serves it; a failure's text on `err` and 1 when the
// instance refuses; 130 after an interrupted sign-in, which is cancelled
// quietly.
int run(const Invocation& invocation, const std::filesystem::path& socket, Terminal terminal);

// `halvark status` without --json: the object of `status --json` as lines
// to read, with the brains' times relative to `now`.
std::string statusText(const nlohmann::json& status, synckit::Timestamp now);

}  // namespace CommandLine
}  // namespace halvark
