#include "app/platform/systemd_notify.h"

#include <systemd/sd-daemon.h>

namespace halvark::SystemdNotify {

// sd_notify() does nothing without $NOTIFY_SOCKET and reports failures only
// through its result, which has no one to go to here.
void ready() noexcept { ::sd_notify(0, "READY=1"); }

void stopping() noexcept { ::sd_notify(0, "STOPPING=1"); }

}  // namespace halvark::SystemdNotify
