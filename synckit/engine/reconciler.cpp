#include "synckit/engine/reconciler.h"

#include <unordered_set>

#include "synckit/base/error.h"
#include "synckit/conflicts/conflict_detector.h"
#include "synckit/engine/batch_applier.h"
#include "synckit/platform/ignore_list.h"

namespace synckit::Reconciler {
namespace {

// A folder retitle keeps the folder's updatedAt: the name shown changed, not
// anything inside.
void retitleFolder(BatchApplier& applier, MetadataStore& store, NodeRecord folder,
                   const std::string& title) {
  if (title.empty() || title == folder.title) return;
  folder.title = title;
  store.upsertNode(folder);
  applier.recordChange(folder.nodeId, false);
}

void applyCreate(BatchApplier& applier, MetadataStore& store, const Op::Create& op) {
  const NodeKind kind = op.nodeKind.value_or(NodeKind::text);
  auto existing = applier.nodeAtPath(op.path);
  if (!existing) {
    applier.applyCreate(op.path, op.title, op.isDirectory, kind);
  } else if (existing->isDirectory && op.isDirectory) {
    retitleFolder(applier, store, std::move(*existing), op.title);
  } else if (!existing->isDirectory && !op.isDirectory) {
    if (existing->kind == kind && existing->title == op.title) {
      applier.applyUpdate(op.path, op.title, true, kind);
    } else {
      applier.deleteSubtree(op.path);
      applier.applyCreate(op.path, op.title, false, kind);
    }
  } else {
    applier.deleteSubtree(op.path);
    applier.applyCreate(op.path, op.title, op.isDirectory, kind);
  }
}

void applyMkdir(BatchApplier& applier, MetadataStore& store, const Op::Mkdir& op) {
  auto existing = applier.nodeAtPath(op.path);
  if (existing && existing->isDirectory) {
    retitleFolder(applier, store, std::move(*existing), op.title);
    return;
  }
  if (existing) applier.deleteSubtree(op.path);
  applier.applyCreate(op.path, op.title, true, NodeKind::text);
}

void dispatch(BatchApplier& applier, MetadataStore& store, const Op& op) {
  // A delete reaches even an ignored name, so that nothing is left behind
  // that the server no longer has.
  if (const auto* remove = op.as<Op::Delete>()) {
    applier.deleteSubtree(remove->path);
    return;
  }
  if (IgnoreList::isIgnored(op.path())) return;
  if (const auto* create = op.as<Op::Create>()) {
    applyCreate(applier, store, *create);
  } else if (const auto* update = op.as<Op::Update>()) {
    applier.applyUpdate(update->path, update->title, update->bodyChanged, update->nodeKind);
  } else if (const auto* move = op.as<Op::Move>()) {
    // Moved onto an ignored name, the item leaves what is synced.
    if (IgnoreList::isIgnored(move->newPath)) {
      applier.deleteSubtree(move->path);
    } else {
      applier.applyMove(move->path, move->newPath);
    }
  } else if (const auto* mkdir = op.as<Op::Mkdir>()) {
    applyMkdir(applier, store, *mkdir);
  }
}

}  // namespace

ReconcileResult reconcile(const std::vector<FeedEntry>& entries, const Uuid& brainId,
                          const std::optional<std::string>& cursor, MetadataStore& store,
                          const ConflictHandler& resolve) {
  return store.writeTransaction([&] {
    // Read once: the handler may remove or rewrite changes, and later ops of
    // the page are still tested against the queue as the page found it.
    const std::vector<PendingChange> pending = store.pendingChanges(brainId);
    BatchApplier applier(brainId, store);
    std::unordered_set<std::string> seenCursors;

    for (const FeedEntry& entry : entries) {
      seenCursors.insert(entry.cursor);
      for (const Op& op : entry.ops) {
        const PendingChange* keptLocal = nullptr;
        for (const PendingChange& change : pending) {
          const bool entryFollowsBase =
              !(change.baseCursor && seenCursors.contains(*change.baseCursor));
          if (!ConflictDetector::remoteChangeCollides(op, change, entryFollowsBase)) continue;
          if (resolve(entry, op, change) == ConflictResolution::keepLocal && !keptLocal) {
            keptLocal = &change;
          }
        }
        // The local version must reach the server before this page can be
        // applied; the page is fetched again from the unchanged cursor. The
        // error names the local item whose content the page cannot replace.
        if (keptLocal) throw FileNotFoundError(keptLocal->path);
        applier.setEntryDate(entry.at);
        dispatch(applier, store, op);
      }
    }

    ReconcileResult result{applier.downloadRequests(cursor), false};
    store.setCursor(brainId, cursor);
    result.changedAnchors = applier.changed();
    return result;
  });
}

}  // namespace synckit::Reconciler
