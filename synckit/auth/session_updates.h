#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "synckit/auth/session_state.h"

namespace synckit {

// One observer's stream of session changes, from TokenManager::updates().
// It buffers without limit, so a slow reader never holds up the manager, and
// it starts empty: read TokenManager::state() for the current value. The
// stream ends when the manager is destroyed; destroying the stream
// unsubscribes it. Read it from one thread at a time; it may be destroyed on
// any thread.
class SessionUpdates {
 public:
  // The buffer shared between the manager (writer) and this stream (reader).
  class Channel {
   public:
    void push(SessionState state);
    void finish();

    std::optional<SessionState> take(std::optional<std::chrono::milliseconds> timeout);
    std::optional<SessionState> tryTake();

   private:
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<SessionState> buffer_;
    bool finished_ = false;
  };

  SessionUpdates(std::shared_ptr<Channel> channel, std::function<void()> unsubscribe);
  ~SessionUpdates();
  SessionUpdates(SessionUpdates&& other) noexcept;
  SessionUpdates& operator=(SessionUpdates&& other) noexcept;
  SessionUpdates(const SessionUpdates&) = delete;
  SessionUpdates& operator=(const SessionUpdates&) = delete;

  // The next change; waits for one. Absent once the stream has ended. Throws
  // CancellationError when the calling thread's work is asked to stop.
  std::optional<SessionState> next();
  // The next change if one arrives within `timeout`.
  std::optional<SessionState> next(std::chrono::milliseconds timeout);
  // The next buffered change, without waiting.
  std::optional<SessionState> tryNext();

 private:
  void release() noexcept;

  std::shared_ptr<Channel> channel_;
  std::function<void()> unsubscribe_;
};

}  // namespace synckit
