#include "server/shared_state.h"

#include "server/state_codec.h"
#include "server/state_store.h"
#include "server/wire_time.h"

namespace devserver {

SharedState::SharedState(std::map<std::string, std::string> members,
                         std::int64_t tokenLifetimeSeconds,
                         const std::optional<std::string>& stateFile)
    : model_(std::move(members), tokenLifetimeSeconds) {
  if (stateFile) {
    store_ = std::make_unique<StateStore>(*stateFile);
    if (auto text = store_->loadState()) {
      try {
        decodeState(nlohmann::json::parse(*text), model_);
      } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error("The state file " + *stateFile + " is damaged: " + error.what());
      }
    }
  }
  blobs_ = std::make_unique<BlobStore>(store_.get());
}

SharedState::~SharedState() = default;

std::int64_t SharedState::now() const { return systemMillis() + clockOffset_.load(); }

void SharedState::save() {
  if (store_) store_->saveState(encodeState(model_).dump());
}

}  // namespace devserver
