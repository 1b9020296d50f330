// halvark: the tray application (no verb), the headless daemon (`daemon`)
// and the command-line client of a running instance (every other verb).

#include <unistd.h>

#include <iostream>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "app/cli/command_line.h"
#include "app/cli/daemon.h"
#include "app/cli/signal_descriptor.h"
#include "app/platform/control_protocol.h"
#include "app/tray/tray_main.h"

int main(int argc, char** argv) {
  using halvark::CommandLine::Invocation;
  if (argc <= 1) return halvark::runTray(argc, argv);

  const auto parsed = halvark::CommandLine::parse(std::vector<std::string>(argv + 1, argv + argc),
                                                  std::cout, std::cerr);
  if (const int* status = std::get_if<int>(&parsed)) return *status;
  const Invocation& invocation = std::get<Invocation>(parsed);
  switch (invocation.verb) {
    case Invocation::Verb::tray:
      return halvark::runTray(argc, argv);
    case Invocation::Verb::daemon:
      return halvark::runDaemon(std::cerr);
    default:
      break;
  }

  try {
    // Ctrl-C during a sign-in cancels it in the instance before exiting;
    // every other verb ends at once as usual.
    std::optional<halvark::SignalDescriptor> interrupts;
    if (invocation.verb == Invocation::Verb::signIn) interrupts.emplace({SIGINT, SIGTERM});
    return halvark::CommandLine::run(invocation, halvark::ControlProtocol::socketPath(),
                                     {.out = std::cout,
                                      .err = std::cerr,
                                      .input = STDIN_FILENO,
                                      .interrupt = interrupts ? interrupts->fd() : -1});
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
