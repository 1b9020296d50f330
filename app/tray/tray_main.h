#pragma once

namespace halvark {

// The tray application: `halvark` without a verb. Runs Qt's event loop with
// an AppInstance until "Quit"; returns the process's exit status.
int runTray(int argc, char** argv);

}  // namespace halvark
