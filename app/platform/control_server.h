#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stop_token>
#include <thread>

namespace halvark {

// Serves the control socket of the running instance: a Unix stream socket
// (mode 0600 in a 0700 directory) that only processes of the allowed user
// may talk to (SO_PEERCRED), with one JSON request per line and the answer
// lines of ControlProtocol. The meaning of the requests is the handler's.
//
// One thread accepts; each connection has a thread of its own that reads its
// requests in order and runs the handler for each, so a request that waits
// (a sign-in) holds up only its own client.
//
// Constructed and destroyed by the owner's thread; the handler is called on
// the connection threads.
class ControlServer {
 public:
  // Where a request sends its lines before the final answer. Any thread,
  // also after the request ended, when it sends nothing.
  class Channel {
   public:
    explicit Channel(int fd) : fd_(fd) {}
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // False once the client is gone or the request has ended.
    bool send(const nlohmann::json& message);

   private:
    friend class ControlServer;
    // Ends sending; a send blocked on a client that reads nothing returns.
    void close();
    void interrupt() const;

    const int fd_;
    std::mutex mutex_;
    bool open_ = true;
  };

  // Answers `request` (an object with a "command" text): the returned object
  // is the final line, sent with "ok" as it is; null when the handler sent
  // it through the channel itself. `stop` is requested when the server
  // stops; the handler also runs under it as the thread's ambient
  // cancellation. An exception becomes {"ok": false, "error": its text}.
  using Handler =
      std::function<nlohmann::json(const nlohmann::json& request,
                                   const std::shared_ptr<Channel>& channel, std::stop_token stop)>;

  // Binds `socket` and starts serving. The caller must hold the instance
  // lock: a file already at `socket` is taken to be the socket of an instance
  // that was killed and is replaced (anything but a socket is left alone and
  // refused with EEXIST). Throws PosixError.
  ControlServer(std::filesystem::path socket, Handler handler, uid_t allowedUser = ::getuid());
  ~ControlServer();  // stop()
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Stops accepting, stops the requests in progress and waits for every
  // connection thread, then removes the socket file. Idempotent.
  void stop();

 private:
  struct Connection {
    std::shared_ptr<Channel> channel;
    std::atomic<bool> finished{false};
    std::jthread thread;
  };

  void accept();
  void serve(Connection& connection, std::stop_token stop);
  void reapFinished();

  const std::filesystem::path socket_;
  const Handler handler_;
  const uid_t allowedUser_;
  int listenFd_ = -1;
  // An eventfd that becomes readable, for good, when the server stops.
  int wakeFd_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::mutex mutex_;
  std::list<std::unique_ptr<Connection>> connections_;
  bool stopped_ = false;
  std::jthread acceptor_;  // last: starts once everything above is set
};

}  // namespace halvark
