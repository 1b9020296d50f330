#pragma once

#include <signal.h>

#include <initializer_list>

namespace halvark {

// Turns signals into a readable descriptor: the signals are blocked in the
// calling thread (and so in every thread it starts afterwards) and arrive
// on a signalfd instead of interrupting whatever runs. The daemon reads
// SIGTERM and SIGINT this way to quit in order, and `halvark sign-in` reads
// Ctrl-C to cancel before it exits. Destruction restores the signal mask.
//
// Construct it before any thread starts; one thread reads it.
class SignalDescriptor {
 public:
  // Throws PosixError.
  explicit SignalDescriptor(std::initializer_list<int> signals);
  ~SignalDescriptor();
  SignalDescriptor(const SignalDescriptor&) = delete;
  SignalDescriptor& operator=(const SignalDescriptor&) = delete;

  // Readable while a signal is pending.
  int fd() const noexcept { return fd_; }
  // The pending signal, taken off the descriptor; 0 when none is pending.
  int take();

 private:
  sigset_t previous_;
  int fd_ = -1;
};

}  // namespace halvark
