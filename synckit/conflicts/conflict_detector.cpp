#include "synckit/conflicts/conflict_detector.h"

#include <string_view>

namespace synckit::ConflictDetector {
namespace {

bool isInside(std::string_view local, std::string_view remote) {
  return local.size() > remote.size() && local[remote.size()] == '/' && local.starts_with(remote);
}

// One remote path against the change's own path and its move source.
bool meets(std::string_view remote, bool subtree, const PendingChange& pending) {
  auto hit = [&](std::string_view local) {
    return local == remote || (subtree && isInside(local, remote));
  };
  return hit(pending.path) || (pending.fromPath && hit(*pending.fromPath));
}

}  // namespace

bool pathsCollide(const Op& op, const PendingChange& pending) {
  if (const auto* move = op.as<Op::Move>()) {
    return meets(move->path, true, pending) || meets(move->newPath, true, pending);
  }
  return meets(op.path(), op.kind() == Op::Kind::delete_, pending);
}

bool remoteChangeCollides(const Op& op, const PendingChange& pending, bool entryFollowsBase) {
  return entryFollowsBase && pathsCollide(op, pending);
}

}  // namespace synckit::ConflictDetector
