#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/core/app_state.h"
#include "app/core/auth_controller.h"
#include "app/core/domain_controller.h"
#include "app/core/file_provider_manager.h"
#include "app/core/main_queue.h"
#include "app/core/sync_scheduler.h"
#include "app/core/web_authenticator.h"
#include "synckit/api/http_transport.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/token_persisting.h"
#include "synckit/store/metadata_store.h"

namespace halvark {

// The root of the application: builds every long-lived object in order
// (base URL and transport, the store in the shared container, the token
// manager, the state, the sign-in controller, the API client, the domain
// controller, the scheduler), and turns the session into starting and
// stopping the file-provider domain and the scheduler.
//
// Lives on the main thread: construct it, call it and destroy it there.
// Activating the domain and starting or stopping the scheduler block on the
// network and on threads, so they run in order on a session thread of the
// model; what they report is applied on the main thread.
class AppModel {
 public:
  // What the platform supplies. The references must outlive the model.
  struct Platform {
    MainQueue& mainQueue;
    WebAuthenticator& authenticator;
    FileProviderManager& fileProviderManager;
    // The token store; synckit::makeTokenStore() when empty.
    std::function<std::unique_ptr<synckit::TokenPersisting>()> makeTokenStore;
    // The HTTP transport; a CurlTransport when null.
    std::unique_ptr<synckit::HTTPTransport> transport;
    // The name this computer registers under; the host name when empty.
    std::string hostName;
  };

  // Builds everything and starts following the session. A store that cannot
  // be opened leaves errorMessage at "Halvark's shared storage is
  // unavailable: …"; sign-in still works, nothing syncs.
  explicit AppModel(Platform platform);
  // Stops the scheduler and the session thread; the domain stays registered.
  ~AppModel();
  AppModel(const AppModel&) = delete;
  AppModel& operator=(const AppModel&) = delete;

  AppState& appState() noexcept;
  AuthController& authController() noexcept;
  // Null when the store could not be opened.
  synckit::MetadataStore* store() noexcept;
  SyncScheduler* scheduler() noexcept;
  DomainController* domainController() noexcept;
  const std::string& baseURL() const noexcept;

  // Stores the inbox choice (none removes it) and shows it. Throws the
  // store's errors; a choice that was not stored is not shown.
  void setInboxBrain(std::optional<synckit::Uuid> id);
  // Every loop passes now; nothing while not syncing.
  void syncNow();
  // The brain's next pass starts from no cursor.
  void resync(const synckit::Uuid& brainId);

 private:
  struct SessionThread;

  void handleSession(bool signedIn);  // on the session thread

  std::string baseURL_;
  std::unique_ptr<synckit::HTTPTransport> transport_;
  std::unique_ptr<synckit::MetadataStore> store_;
  std::optional<std::string> storeFailure_;
  std::unique_ptr<synckit::TokenPersisting> tokens_;
  std::unique_ptr<synckit::TokenManager> tokenManager_;
  std::unique_ptr<AppState> appState_;
  std::unique_ptr<AuthController> authController_;
  std::unique_ptr<synckit::SyncAPIClient> api_;
  std::unique_ptr<DomainController> domainController_;
  std::unique_ptr<SyncScheduler> scheduler_;
  AppState::ObserverId sessionObserver_ = 0;
  std::unique_ptr<SessionThread> sessionThread_;
  MainQueue& mainQueue_;
};

}  // namespace halvark
