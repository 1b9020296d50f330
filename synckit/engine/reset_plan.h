#pragma once

#include <vector>

#include "synckit/engine/download_request.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {

// What a reset left to do outside the store: the files whose content must be
// fetched (in path order) and the items that disappeared, so the file
// provider can be told. A plain value; safe to copy between threads.
struct ResetPlan {
  std::vector<DownloadRequest> downloads;
  // The node identifiers of the rows the reset removed.
  std::vector<SyncItemIdentifier> deletedIdentifiers;

  bool isEmpty() const noexcept { return downloads.empty() && deletedIdentifiers.empty(); }

  bool operator==(const ResetPlan&) const = default;
};

}  // namespace synckit
