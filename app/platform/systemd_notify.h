#pragma once

namespace halvark {

// Tells the service manager how the daemon is doing, so that its user unit
// can be Type=notify. Does nothing unless the manager asked for it
// ($NOTIFY_SOCKET), and never fails: a manager that does not listen only
// loses the news. Any thread.
namespace SystemdNotify {

// "READY=1": the control socket serves.
void ready() noexcept;
// "STOPPING=1": the daemon is shutting down.
void stopping() noexcept;

}  // namespace SystemdNotify
}  // namespace halvark
