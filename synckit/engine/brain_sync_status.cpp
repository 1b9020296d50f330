#include "synckit/engine/brain_sync_status.h"

namespace synckit {
namespace {

BrainSyncStatus::State stateOf(const Uuid& brainId, std::int64_t pendingErrorCount,
                               const std::set<Uuid>& syncing,
                               const std::map<Uuid, std::string>& errors) {
  if (syncing.contains(brainId)) return BrainSyncStatus::State::syncing();
  if (auto error = errors.find(brainId); error != errors.end())
    return BrainSyncStatus::State::error(error->second);
  if (pendingErrorCount > 0) {
    return BrainSyncStatus::State::error(std::to_string(pendingErrorCount) + " upload error" +
                                         (pendingErrorCount == 1 ? "" : "s"));
  }
  return BrainSyncStatus::State::idle();
}

}  // namespace

std::optional<std::string> BrainSyncStatus::State::errorText() const {
  if (const auto* error = std::get_if<Error>(&value)) return error->text;
  return std::nullopt;
}

std::vector<BrainSyncStatus> statuses(MetadataStore& store, const std::set<Uuid>& syncing,
                                      const std::map<Uuid, std::string>& errors,
                                      const std::map<Uuid, Timestamp>& lastSyncAt) {
  return store.writeTransaction([&] {
    std::vector<BrainSyncStatus> lines;
    for (BrainRecord& brain : store.brains()) {
      const std::int64_t pendingErrorCount = store.uploadErrorCount(brain.brainId);
      std::optional<Timestamp> lastSync;
      if (auto found = lastSyncAt.find(brain.brainId); found != lastSyncAt.end())
        lastSync = found->second;
      BrainSyncStatus::State state = stateOf(brain.brainId, pendingErrorCount, syncing, errors);
      lines.push_back(BrainSyncStatus{brain.brainId, std::move(brain.name), std::move(state),
                                      lastSync, pendingErrorCount});
    }
    return lines;
  });
}

}  // namespace synckit
