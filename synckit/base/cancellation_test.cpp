#include "synckit/base/cancellation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "synckit/base/error.h"

namespace synckit {
namespace {

using namespace std::chrono_literals;

TEST(CancellationTest, ScopeInstallsAndRestoresTheToken) {
  EXPECT_FALSE(isCancelled());
  EXPECT_NO_THROW(checkCancellation());
  std::stop_source outer;
  {
    CancellationScope scope(outer.get_token());
    std::stop_source inner;
    inner.request_stop();
    {
      CancellationScope nested(inner.get_token());
      EXPECT_THROW(checkCancellation(), CancellationError);
    }
    EXPECT_FALSE(isCancelled());
  }
  outer.request_stop();
  EXPECT_FALSE(isCancelled());  // no scope installed any more
}

TEST(CancellationTest, StopWakesASleepingThreadEarlyAndOnlyThen) {
  std::atomic<bool> threw = false;
  auto start = std::chrono::steady_clock::now();
  std::jthread worker([&](std::stop_token stop) {
    CancellationScope scope(stop);
    try {
      sleepFor(60s);
    } catch (const CancellationError&) {
      threw = true;
    }
  });
  std::this_thread::sleep_for(50ms);
  worker.request_stop();
  worker.join();
  EXPECT_TRUE(threw);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);

  // Without a stop the sleep lasts its whole duration.
  start = std::chrono::steady_clock::now();
  sleepFor(20ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

}  // namespace
}  // namespace synckit
