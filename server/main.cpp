// halvark-devserver: the reference sync service on loopback. Prints the base
// URL as the first line of standard output, serves until SIGINT or SIGTERM.

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "server/dev_server.h"

int main(int argc, char** argv) {
  using namespace devserver;
  Options options;
  try {
    options = parseOptions(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const OptionsError& error) {
    std::fprintf(stderr, "halvark-devserver: %s\n%s", error.what(), kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }

  // The signals are taken by sigwait below; blocked before any thread starts so
  // that every worker inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    DevServer server(options);
    std::string url = server.start();
    std::printf("%s\n", url.c_str());
    std::fflush(stdout);
    int received = 0;
    sigwait(&signals, &received);
    server.stop();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "halvark-devserver: %s\n", error.what());
    return 1;
  }
  return 0;
}
