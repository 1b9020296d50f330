#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "synckit/base/bytes.h"
#include "synckit/base/uuid.h"
#include "synckit/engine/content_upload_plan.h"
#include "synckit/engine/create_plan.h"
#include "synckit/engine/move_plan.h"
#include "synckit/store/brain_record.h"
#include "synckit/store/node_record.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {

// Turns what the user did locally (created an item, renamed or moved one,
// wrote new content) into a plan: what to send, what to keep only locally,
// or why the action is refused. Refusals are plan cases carrying an
// UploadPlanError, never exceptions. Reads only its arguments: pure, any
// thread. The file provider calls the create and move planners, the upload
// of pending edits and conflicted copies the content planner, and the
// application the inbox-brain resolver.
namespace UploadPlanner {

// The largest upload, in bytes (100 MiB).
inline constexpr std::int64_t maxUploadBytes = 104857600;
inline constexpr std::string_view crossBrainMessage =
    "Moving items between brains isn't supported. Copy the item instead.";

// An item named `filename` created in `parent`: a brain's top (any
// `parentPath` is ignored), a folder at `parentPath`, or the domain's root,
// which stands for the inbox brain.
CreatePlan planCreate(const SyncItemIdentifier& parent,
                      const std::optional<std::string>& parentPath, std::string_view filename,
                      bool isDirectory, const std::optional<Uuid>& inboxBrainId);

// `record` renamed to `newName` and/or moved into `newParent` (a folder of
// the brain at `newParentPath`); absent values keep the record's own.
MovePlan planMove(const NodeRecord& record, const std::optional<std::string>& newName,
                  const std::optional<SyncItemIdentifier>& newParent,
                  const std::optional<std::string>& newParentPath,
                  const std::optional<Uuid>& inboxBrainId);
MovePlan planRename(const NodeRecord& record, const std::string& newName);
MovePlan planReparent(const NodeRecord& record, const SyncItemIdentifier& newParent,
                      const std::optional<std::string>& newParentPath,
                      const std::optional<Uuid>& inboxBrainId);

// Text when the content classifies as text, else a blob with its hash;
// tooLarge past maxUploadBytes (exactly maxUploadBytes is allowed).
ContentUploadPlan planContentUpload(Bytes data);

// The title a file gets from its path: the last component without its
// extension ("notes/plan.md" gives "plan"; ".profile" stays; "a.b.c" gives
// "a.b").
std::string defaultTitle(std::string_view path);

// The brain new top-level items go to: the preferred one when it is among
// `brains`, else the first brain with slug "inbox" (any case) in order of
// lower-cased name, slug and id, else the first brain in that order.
std::optional<Uuid> resolveInboxBrain(const std::vector<BrainRecord>& brains,
                                      const std::optional<Uuid>& preferredId);

}  // namespace UploadPlanner
}  // namespace synckit
