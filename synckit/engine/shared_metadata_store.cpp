#include "synckit/engine/shared_metadata_store.h"

#include "synckit/platform/app_group.h"

namespace synckit::SharedMetadataStore {

std::unique_ptr<MetadataStore> open() { return MetadataStore::open(AppGroup::databaseURL()); }

}  // namespace synckit::SharedMetadataStore
