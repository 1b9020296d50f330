#pragma once
// The control interface below {base}/_control, for tests and the demo: brains
// and grants, read-only folders, changes made as another device, member or
// agent, cursor invalidation, token expiry, the clock, fault injection, and the
// whole tree of a brain. Loopback callers only.

namespace httplib {
class Server;
}

namespace devserver {

struct ServiceContext;

void addControlRoutes(httplib::Server& server, ServiceContext& context);

// The path prefix of the control interface below the base path.
inline constexpr const char* kControlPrefix = "/_control";

}  // namespace devserver
