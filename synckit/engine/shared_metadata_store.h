#pragma once

#include <memory>

#include "synckit/store/metadata_store.h"

namespace synckit {

// The metadata store that the application and the file provider share: the
// file at AppGroup::databaseURL() in the shared container.
namespace SharedMetadataStore {

// Creates the container's directories as needed and opens the store; fails
// with MetadataStoreError::containerUnavailable when there is no container.
std::unique_ptr<MetadataStore> open();

}  // namespace SharedMetadataStore
}  // namespace synckit
