#include "app/tray/qt_main_queue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <thread>
#include <vector>

#include "app/tray/testing/qt_application_environment.h"

namespace halvark {
namespace {

void processEventsUntil(const std::function<bool()>& done) {
  QDeadlineTimer deadline(10000);
  while (!done() && !deadline.hasExpired())
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

TEST(QtMainQueue, RunsTasksFromAnyThreadInOrderOnTheEventLoopAndDropsThemAfterShutdown) {
  QtMainQueue queue;
  const auto mainThread = std::this_thread::get_id();
  std::vector<int> ran;
  bool onMainThread = true;
  std::thread poster([&] {
    for (int i = 0; i < 100; ++i) {
      queue.post([&, i] {
        onMainThread = onMainThread && std::this_thread::get_id() == mainThread;
        ran.push_back(i);
      });
    }
  });
  poster.join();
  // Nothing runs until the event loop turns.
  EXPECT_TRUE(ran.empty());
  processEventsUntil([&] { return ran.size() == 100; });
  ASSERT_EQ(ran.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(ran[i], i);
  EXPECT_TRUE(onMainThread);

  bool lateRan = false;
  queue.post([&] { lateRan = true; });  // waiting when the queue shuts down
  queue.shutdown();
  queue.post([&] { lateRan = true; });
  QCoreApplication::processEvents();
  EXPECT_FALSE(lateRan);
}

}  // namespace
}  // namespace halvark
