#pragma once

#include "synckit/api/op.h"
#include "synckit/store/pending_change.h"

namespace synckit {

// Whether a remote operation and a local change waiting in the queue touch
// the same place, so that one of them must give way. Pure; any thread; never
// throws.
//
// Paths compare byte for byte (no case folding, no normalisation). A remote
// move or delete reaches into its subtree; a create, update or mkdir meets a
// local change only at exactly its path. A local change is seen at its path
// and, for a move, at its source path.
namespace ConflictDetector {

// False whenever `entryFollowsBase` is false: the remote entry is one the
// local change was already based on.
bool remoteChangeCollides(const Op& op, const PendingChange& pending, bool entryFollowsBase);

// The path test alone, for callers that decide the base question themselves.
bool pathsCollide(const Op& op, const PendingChange& pending);

}  // namespace ConflictDetector
}  // namespace synckit
