#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace synckit {

// A named, system-wide "sync now" nudge between the processes of one user:
// the file provider posts it after journalling local changes, the
// application listens for it. It carries no data, and a signal nobody
// listens for is simply lost, so senders never depend on it being heard.
//
// On Linux each name is a Unix datagram socket in socketDirectory().
namespace SyncSignal {

// The application identifier followed by ".sync-now".
std::string name();

// $XDG_RUNTIME_DIR/halvark, or the shared container when there is no
// (absolute) runtime directory. The container fallback throws the
// container's MetadataStoreError when it cannot be derived either.
std::filesystem::path socketDirectory();

// Sends one signal to the listener of `name`. True when a listener received
// it; false when nobody listens (no socket, or one left by a process that
// died), when that listener's queue is full (it has unhandled signals
// already, so nothing is lost) and on any other failure. Never blocks or
// throws; any thread may call it.
bool post(std::string_view name) noexcept;

}  // namespace SyncSignal

// Listens for one signal name and calls `handler` for what arrives, on the
// listener's own thread, until stopped. Signals that arrive while `handler`
// runs, or together, are coalesced into one later call: each call means
// "at least one signal came since the last call".
//
// The owner constructs, stops and destroys it, from one thread at a time.
class SyncSignalListener {
 public:
  // Creates the socket directory (mode 0700) when missing and binds
  // socketDirectory()/<name>. A socket left behind by a process that died
  // is replaced. Throws PosixError: EADDRINUSE while another live listener
  // holds the name, ENAMETOOLONG when the path does not fit a socket
  // address, EINVAL for a name that is not a plain file name, the failing
  // call's code otherwise.
  SyncSignalListener(std::string name, std::function<void()> handler);
  ~SyncSignalListener();  // stop()
  SyncSignalListener(const SyncSignalListener&) = delete;
  SyncSignalListener& operator=(const SyncSignalListener&) = delete;

  // Stops delivery and waits for the listener thread: once it returns,
  // `handler` is not running and will not run again, and posts to the name
  // return false. Removes the socket file unless another listener has
  // taken the name since. Idempotent.
  //
  // Not meant to be called from `handler`; if it is, it returns without
  // waiting for the running call (which is the caller) and no further call
  // follows.
  void stop();

  const std::string& name() const { return name_; }

 private:
  struct Channel;

  std::string name_;
  std::filesystem::path path_;
  std::shared_ptr<Channel> channel_;
  std::thread thread_;
};

}  // namespace synckit
