#pragma once

namespace synckit {

// Whether a user is signed in on this machine.
enum class SessionState { signedIn, signedOut };

}  // namespace synckit
