#pragma once

#include <vector>

#include "synckit/api/brain.h"
#include "synckit/store/metadata_store.h"

namespace synckit {

// Brings the store's brains in line with the list of brains the signed-in
// member is granted: new brains are added, renamed ones updated, and brains
// no longer granted removed together with their nodes. Every visible change
// is entered in the change log so the file-provider side re-enumerates it.
// Stateless; any thread may call it.
namespace BrainGrants {

// True when at least one brain was added, renamed (name or slug) or removed.
// A brain whose id is not a UUID is skipped. Each store call stands on its
// own, so a failure (the store's SQLiteError) keeps the changes made before
// it and a second run completes the work. An empty list removes every brain.
bool apply(const std::vector<Brain>& brains, MetadataStore& store);

}  // namespace BrainGrants
}  // namespace synckit
