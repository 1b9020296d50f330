#include "tests/e2e/devserver_process.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace halvark::e2e {
namespace {

// Reads the child's first line, giving up after `limit`.
std::string readFirstLine(int fd, std::chrono::milliseconds limit) {
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) throw std::runtime_error("halvark-devserver printed no base URL in time");
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n <= 0) throw std::runtime_error("halvark-devserver exited before printing its base URL");
    if (c == '\n') return line;
    line.push_back(c);
  }
}

}  // namespace

DevServerProcess::DevServerProcess(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), HALVARK_DEVSERVER_PATH);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (spawned != 0) {
    close(pipeFds[0]);
    throw std::runtime_error("could not start " + arguments[0]);
  }
  try {
    baseURL_ = readFirstLine(pipeFds[0], std::chrono::seconds(20));
  } catch (...) {
    close(pipeFds[0]);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    throw;
  }
  // The rest of its output is not needed; closing the pipe would make its
  // later writes fail, so hand it to a thread that drains it.
  std::thread([fd = pipeFds[0]] {
    char buffer[4096];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    close(fd);
  }).detach();
}

DevServerProcess::~DevServerProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int i = 0; i < 100; ++i) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

}  // namespace halvark::e2e
