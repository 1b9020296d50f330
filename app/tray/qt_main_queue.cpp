#include "app/tray/qt_main_queue.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>

namespace halvark {

QtMainQueue::QtMainQueue()
    : open_(std::make_shared<std::atomic<bool>>(true)), context_(std::make_unique<QObject>()) {}

QtMainQueue::~QtMainQueue() {
  shutdown();
  std::unique_ptr<QObject> context;
  {
    std::lock_guard lock(mutex_);
    context = std::move(context_);
  }
  // Deleting the context also removes the invocations still queued for it.
}

void QtMainQueue::post(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  if (!context_ || !open_->load()) return;
  QMetaObject::invokeMethod(
      context_.get(),
      [open = open_, task = std::move(task)] {
        if (open->load()) task();
      },
      Qt::QueuedConnection);
}

void QtMainQueue::shutdown() { open_->store(false); }

}  // namespace halvark
