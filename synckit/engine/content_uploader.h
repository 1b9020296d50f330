#pragma once

#include <string>

#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/uuid.h"
#include "synckit/engine/content_upload_plan.h"
#include "synckit/engine/uploaded_content.h"

namespace synckit {

// Sends planned content of one file to the server. Writes nothing to the
// store: recording the result is the caller's (LocalMutations::applyUpload).
namespace ContentUploader {

// Text goes up as one write; a blob first as bytes, then as a write naming
// the hash the server answered with. Each request runs under the token
// manager's withAuthRetry, so a 401 refreshes the token once and repeats
// that request. A tooLarge plan throws UploadPlanError::tooLarge before any
// request. Server and transport failures propagate as SyncAPIClient throws
// them (SyncAPIError, TransportError, ...), and TokenManagerError::signedOut
// after a second 401. Blocks for the requests; any thread.
UploadedContent send(const ContentUploadPlan& plan, const Uuid& brainId, const std::string& path,
                     const std::string& deviceId, const SyncAPIClient& api,
                     TokenManager& tokenManager);

}  // namespace ContentUploader
}  // namespace synckit
