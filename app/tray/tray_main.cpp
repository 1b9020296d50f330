#include "app/tray/tray_main.h"

#include <QApplication>
#include <cstdio>

#include "app/tray/qt_main_queue.h"

namespace halvark {

int runTray(int argc, char** argv) {
  QApplication application(argc, argv);
  QtMainQueue mainQueue;
  // The instance and the menu are not wired to the event loop yet.
  std::fputs("halvark: the tray application is not available in this build yet.\n", stderr);
  return 1;
}

}  // namespace halvark
