#include "synckit/base/clock.h"

#include <condition_variable>
#include <mutex>

namespace synckit {
namespace {

class SystemClock final : public Clock {
 public:
  Timestamp now() override { return Timestamp::now(); }

  bool waitFor(std::chrono::nanoseconds duration, std::stop_token stop) override {
    std::mutex mutex;
    std::condition_variable_any wakeUp;
    std::unique_lock lock(mutex);
    wakeUp.wait_for(lock, stop, duration, [] { return false; });
    return !stop.stop_requested();
  }
};

}  // namespace

Clock& Clock::system() {
  static SystemClock clock;
  return clock;
}

}  // namespace synckit
