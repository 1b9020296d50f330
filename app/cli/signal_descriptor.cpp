#include "app/cli/signal_descriptor.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include "synckit/base/error.h"

namespace halvark {

SignalDescriptor::SignalDescriptor(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : signals) sigaddset(&set, signal);
  if (const int code = ::pthread_sigmask(SIG_BLOCK, &set, &previous_); code != 0)
    throw synckit::PosixError(code);
  fd_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) {
    const int code = errno;
    ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    throw synckit::PosixError(code);
  }
}

SignalDescriptor::~SignalDescriptor() {
  ::close(fd_);
  ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

int SignalDescriptor::take() {
  signalfd_siginfo info{};
  for (;;) {
    if (::read(fd_, &info, sizeof info) == sizeof info) return static_cast<int>(info.ssi_signo);
    if (errno != EINTR) return 0;
  }
}

}  // namespace halvark
