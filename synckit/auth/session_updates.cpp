#include "synckit/auth/session_updates.h"

#include <utility>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"

namespace synckit {

void SessionUpdates::Channel::push(SessionState state) {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    buffer_.push_back(state);
  }
  changed_.notify_all();
}

void SessionUpdates::Channel::finish() {
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
  }
  changed_.notify_all();
}

std::optional<SessionState> SessionUpdates::Channel::take(
    std::optional<std::chrono::milliseconds> timeout) {
  std::unique_lock lock(mutex_);
  auto ready = [this] { return !buffer_.empty() || finished_; };
  std::stop_token stop = currentStopToken();
  if (timeout) {
    changed_.wait_for(lock, stop, *timeout, ready);
  } else {
    changed_.wait(lock, stop, ready);
  }
  // Values that arrived before the stream ended are still delivered.
  if (!buffer_.empty()) {
    SessionState state = buffer_.front();
    buffer_.pop_front();
    return state;
  }
  if (stop.stop_requested() && !finished_) throw CancellationError();
  return std::nullopt;
}

std::optional<SessionState> SessionUpdates::Channel::tryTake() {
  std::lock_guard lock(mutex_);
  if (buffer_.empty()) return std::nullopt;
  SessionState state = buffer_.front();
  buffer_.pop_front();
  return state;
}

SessionUpdates::SessionUpdates(std::shared_ptr<Channel> channel, std::function<void()> unsubscribe)
    : channel_(std::move(channel)), unsubscribe_(std::move(unsubscribe)) {}

SessionUpdates::~SessionUpdates() { release(); }

SessionUpdates::SessionUpdates(SessionUpdates&& other) noexcept
    : channel_(std::move(other.channel_)), unsubscribe_(std::exchange(other.unsubscribe_, {})) {}

SessionUpdates& SessionUpdates::operator=(SessionUpdates&& other) noexcept {
  if (this != &other) {
    release();
    channel_ = std::move(other.channel_);
    unsubscribe_ = std::exchange(other.unsubscribe_, {});
  }
  return *this;
}

void SessionUpdates::release() noexcept {
  if (unsubscribe_) std::exchange(unsubscribe_, {})();
  channel_.reset();
}

std::optional<SessionState> SessionUpdates::next() {
  return channel_ ? channel_->take(std::nullopt) : std::nullopt;
}

std::optional<SessionState> SessionUpdates::next(std::chrono::milliseconds timeout) {
  return channel_ ? channel_->take(timeout) : std::nullopt;
}

std::optional<SessionState> SessionUpdates::tryNext() {
  return channel_ ? channel_->tryTake() : std::nullopt;
}

}  // namespace synckit
