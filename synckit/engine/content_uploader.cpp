#include "synckit/engine/content_uploader.h"

#include "synckit/engine/upload_plan_error.h"

namespace synckit::ContentUploader {

UploadedContent send(const ContentUploadPlan& plan, const Uuid& brainId, const std::string& path,
                     const std::string& deviceId, const SyncAPIClient& api,
                     TokenManager& tokenManager) {
  // No title is sent: the local record takes its title from the path
  // (UploadPlanner::defaultTitle) whatever the server does.
  if (const auto* text = plan.as<ContentUploadPlan::Text>()) {
    WriteResult result = tokenManager.withAuthRetry(
        [&] { return api.putText(brainId, deviceId, path, std::nullopt, text->text); });
    return UploadedContent{std::move(result), NodeKind::text, std::nullopt, std::nullopt};
  }
  if (const auto* blob = plan.as<ContentUploadPlan::Blob>()) {
    // The client takes the bytes by value, so a repeated request gets a
    // fresh copy.
    BlobReceipt receipt =
        tokenManager.withAuthRetry([&] { return api.uploadBlob(brainId, deviceId, blob->data); });
    WriteResult result = tokenManager.withAuthRetry([&] {
      return api.putBlobFile(brainId, deviceId, path, std::nullopt, receipt.hash, blob->size);
    });
    return UploadedContent{std::move(result), NodeKind::blob, std::move(receipt.hash), blob->size};
  }
  throw UploadPlanError::tooLarge(std::get<ContentUploadPlan::TooLarge>(plan.value).size);
}

}  // namespace synckit::ContentUploader
