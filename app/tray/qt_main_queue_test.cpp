#include "app/tray/qt_main_queue.h"

#include <gtest/gtest.h>

#include <QTest>
#include <thread>
#include <vector>

#include "app/tray/testing/qt_application_environment.h"

namespace halvark {
namespace {

TEST(QtMainQueue, RunsTasksFromAnyThreadInOrderOnTheEventLoopAndDropsThemAfterShutdown) {
  QtMainQueue queue;
  const auto mainThread = std::this_thread::get_id();
  std::vector<int> ran;
  std::thread([&] {
    for (int i = 0; i < 100; ++i) {
      queue.post([&, i] { ran.push_back(std::this_thread::get_id() == mainThread ? i : -1); });
    }
  }).join();
  EXPECT_TRUE(ran.empty());  // nothing runs before the event loop turns
  ASSERT_TRUE(QTest::qWaitFor([&] { return ran.size() == 100; }));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(ran[i], i);

  queue.post([&] { ran.push_back(-2); });  // still waiting when the queue shuts down
  queue.shutdown();
  queue.post([&] { ran.push_back(-3); });
  QTest::qWait(10);
  EXPECT_EQ(ran.size(), 100u);
}

}  // namespace
}  // namespace halvark
