#pragma once

#include "synckit/platform/conflict_spool.h"
#include "synckit/store/metadata_store.h"

namespace synckit {

// Drops the spool files that the store no longer needs: edits and copies of
// pending changes that are gone, and node entries of nodes no stored brain
// has. Decides inside the store's write transaction, so no pending change
// appears or disappears meanwhile. Any thread; throws PosixError or the
// store's errors.
namespace ConflictSpoolPruner {

void prune(const ConflictSpool& spool, MetadataStore& store);

}  // namespace ConflictSpoolPruner
}  // namespace synckit
