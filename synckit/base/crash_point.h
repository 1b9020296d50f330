#pragma once

#include <functional>

namespace synckit {

// A seam for crash tests: the places where durable state moves (a store
// commit, a spool file written or removed) call crashPoint() just before
// they act. Without a hook it does nothing; a test process installs one that
// ends the process at a chosen call, to show that every prefix of a piece of
// work leaves the store and the spool consistent.
//
// Install the hook before the work starts and remove it after: the hook is
// read without a lock. The hook runs on whatever thread reached the point.
void crashPoint();

// Installs `hook` (an empty function removes it).
void setCrashPointHook(std::function<void()> hook);

}  // namespace synckit
