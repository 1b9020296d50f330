#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "app/core/main_queue.h"

class QObject;

namespace halvark {

// The tray's MainQueue: tasks run on the thread of Qt's event loop, in the
// order they were posted, as queued invocations.
//
// Construct and destroy it on the Qt main thread, after the QCoreApplication
// exists and before it goes away. post() may be called from any thread.
// After shutdown() (or destruction) tasks that are posted, and those still
// waiting, are dropped.
class QtMainQueue final : public MainQueue {
 public:
  QtMainQueue();
  ~QtMainQueue() override;
  QtMainQueue(const QtMainQueue&) = delete;
  QtMainQueue& operator=(const QtMainQueue&) = delete;

  void post(std::function<void()> task) override;

  // Drops every task not yet run and every task posted later. Any thread.
  void shutdown();

 private:
  // Shared with the queued tasks, so that one already in Qt's queue can tell
  // that the queue was shut down after it was posted.
  std::shared_ptr<std::atomic<bool>> open_;
  // Guards `context_` against a post racing the destruction.
  std::mutex mutex_;
  std::unique_ptr<QObject> context_;
};

}  // namespace halvark
