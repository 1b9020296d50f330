#pragma once

#include <ostream>

namespace halvark {

// `halvark daemon`: the application without an interface, for servers, CI
// and the tests. Runs an AppInstance on a RunLoop until SIGTERM, SIGINT or
// the `quit` verb, and reports readiness to systemd once the control socket
// serves. Returns the exit status: 0 after an orderly stop, 1 when another
// instance runs ("Halvark is already running." on `err`) or the instance
// could not start.
//
// Call it from the main thread before any other thread starts.
int runDaemon(std::ostream& err);

}  // namespace halvark
