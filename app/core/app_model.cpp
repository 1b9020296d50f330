#include "app/core/app_model.h"

#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "synckit/api/curl_transport.h"
#include "synckit/api/sync_api_error.h"
#include "synckit/auth/token_manager_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/engine/shared_metadata_store.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/token_store_factory.h"
#include "synckit/store/meta_key.h"

namespace halvark {
namespace {

std::string machineHostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "Computer";
  return name;
}

// What errorMessage shows when the sync side could not start.
std::string problemText(const std::exception& error) {
  if (auto* api = dynamic_cast<const synckit::SyncAPIError*>(&error)) {
    return api->message().empty() ? api->description() : api->message();
  }
  if (auto* own = dynamic_cast<const synckit::Error*>(&error)) return own->description();
  return error.what();
}

// Stands in when no token store can be made (no Secret Service and no
// container for the file): the launch goes on and shows why.
class UnavailableTokenStore final : public synckit::TokenPersisting {
 public:
  explicit UnavailableTokenStore(std::exception_ptr reason) : reason_(std::move(reason)) {}
  std::optional<synckit::TokenSet> load() override { std::rethrow_exception(reason_); }
  void save(const synckit::TokenSet&) override { std::rethrow_exception(reason_); }
  void clear() override { std::rethrow_exception(reason_); }

 private:
  std::exception_ptr reason_;
};

std::unique_ptr<synckit::TokenPersisting> makeTokenStore(const AppModel::Platform& platform) {
  try {
    return platform.makeTokenStore ? platform.makeTokenStore() : synckit::makeTokenStore();
  } catch (const std::exception&) {
    return std::make_unique<UnavailableTokenStore>(std::current_exception());
  }
}

bool isSignedOut(const std::exception& error) {
  auto* session = dynamic_cast<const synckit::TokenManagerError*>(&error);
  return session && session->kind() == synckit::TokenManagerError::Kind::signedOut;
}

}  // namespace

// The session values on their way from the main thread to the thread that
// acts on them, in order, one at a time, so that a sign-out never overtakes
// a sign-in that is still activating.
struct AppModel::SessionThread {
  // Main thread only: the last value offered, to drop repeats and the
  // session the model started with.
  std::optional<bool> last;
  // Read on the main thread by every task the model posts, which may run
  // after the model is gone.
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);

  std::mutex mutex;
  std::condition_variable_any changed;
  std::deque<bool> values;  // guarded by mutex
  std::jthread thread;

  // Main thread. The first value only says where the session stands.
  void offer(const Session& session) {
    if (session.kind() == Session::Kind::signingIn) return;
    const bool value = session.kind() == Session::Kind::signedIn;
    if (last == value) return;
    const bool first = !last.has_value();
    last = value;
    if (!first) push(value);
  }

  void push(bool value) {
    std::lock_guard lock(mutex);
    values.push_back(value);
    changed.notify_one();
  }

  // On the thread; absent once the model stops it.
  std::optional<bool> next(std::stop_token stop) {
    std::unique_lock lock(mutex);
    if (!changed.wait(lock, stop, [&] { return !values.empty(); })) return std::nullopt;
    const bool value = values.front();
    values.pop_front();
    return value;
  }
};

AppModel::AppModel(Platform platform)
    : sessionThread_(std::make_unique<SessionThread>()), mainQueue_(platform.mainQueue) {
  const std::string hostName =
      platform.hostName.empty() ? machineHostName() : std::move(platform.hostName);

  baseURL_ = synckit::AppGroup::baseURL();
  transport_ = platform.transport ? std::move(platform.transport)
                                  : std::make_unique<synckit::CurlTransport>();
  try {
    store_ = synckit::SharedMetadataStore::open();
  } catch (const std::exception& error) {
    storeFailure_ = problemText(error);
  }
  tokens_ = makeTokenStore(platform);
  if (store_) {
    tokenManager_ =
        std::make_unique<synckit::TokenManager>(baseURL_, *transport_, *tokens_, *store_);
  } else {
    // Without the store there is no client id to refresh with: a rejected
    // token ends the session.
    tokenManager_ = std::make_unique<synckit::TokenManager>(
        baseURL_, *transport_, *tokens_,
        []() -> std::string { throw synckit::TokenManagerError::signedOut(); });
  }

  appState_ = std::make_unique<AppState>(
      *tokenManager_,
      [store = store_.get(), hostName] {
        std::optional<std::string> name;
        if (store) {
          try {
            name = store->metaValue(synckit::MetaKey::deviceName);
          } catch (const std::exception&) {
            // The label is only for the eye.
          }
        }
        return name && !name->empty() ? *name : hostName;
      },
      mainQueue_);
  authController_ = std::make_unique<AuthController>(*appState_, *tokenManager_, baseURL_,
                                                     *transport_, store_.get(), storeFailure_,
                                                     platform.authenticator, mainQueue_, hostName);
  if (storeFailure_) {
    appState_->setErrorMessage(AuthFailure::storeUnavailable(*storeFailure_).description());
  }

  if (store_) {
    api_ = std::make_unique<synckit::SyncAPIClient>(baseURL_, *transport_, *tokenManager_);
    domainController_ = std::make_unique<DomainController>(*store_, *api_, *tokenManager_,
                                                           platform.fileProviderManager);
    // The scheduler calls from its own threads, possibly after a sign-out
    // already cleared the lists: what is not for a signed-in session is dropped.
    auto onMain = [this, alive = sessionThread_->alive](std::function<void(AppState&)> apply) {
      mainQueue_.post([this, alive, apply = std::move(apply)] {
        if (*alive && appState_->session().kind() == Session::Kind::signedIn) apply(*appState_);
      });
    };
    SyncScheduler::Callbacks callbacks;
    callbacks.onConflictEvents = [onMain](std::vector<synckit::ConflictEvent> events) {
      onMain([events = std::move(events)](AppState& state) { state.addConflictNotices(events); });
    };
    callbacks.onProblem = [onMain](std::string message) {
      onMain([message = std::move(message)](AppState& state) { state.setErrorMessage(message); });
    };
    callbacks.onStatus = [onMain](std::vector<synckit::BrainSyncStatus> rows,
                                  std::optional<synckit::Uuid> inbox) {
      onMain([rows = std::move(rows), inbox](AppState& state) { state.applyStatus(rows, inbox); });
    };
    callbacks.onSyncError = [onMain](std::string message) {
      onMain(
          [message = std::move(message)](AppState& state) { state.addRecentSyncError(message); });
    };
    scheduler_ = std::make_unique<SyncScheduler>(*store_, *api_, *tokenManager_, *domainController_,
                                                 std::move(callbacks));
  }

  sessionThread_->offer(appState_->session());
  sessionObserver_ = appState_->observe([this](AppState::Field field) {
    if (field == AppState::Field::session) sessionThread_->offer(appState_->session());
  });
  sessionThread_->thread = std::jthread([this](std::stop_token stop) {
    synckit::CancellationScope scope(stop);
    while (std::optional<bool> value = sessionThread_->next(stop)) handleSession(*value);
  });

  appState_->start([this, alive = sessionThread_->alive] {
    // A launch without a session removes the domain a crash or a sign-out
    // in another process may have left.
    if (*alive && appState_->session().kind() == Session::Kind::signedOut) {
      sessionThread_->push(false);
    }
  });
}

AppModel::~AppModel() {
  *sessionThread_->alive = false;
  appState_->unobserve(sessionObserver_);
  sessionThread_->thread.request_stop();
  sessionThread_->thread = std::jthread();
  // The domain stays: the provider keeps the files visible until the next
  // launch, and quitting is not signing out.
  if (scheduler_) scheduler_->stop();
}

void AppModel::handleSession(bool signedIn) {
  if (!domainController_ || !scheduler_) return;
  if (!signedIn) {
    scheduler_->stop();
    mainQueue_.post([this, alive = sessionThread_->alive] {
      if (!*alive) return;
      appState_->setBrainStatuses({});
      appState_->setInboxBrainId(std::nullopt);
    });
    domainController_->deactivate();
    return;
  }
  try {
    domainController_->activate();
    synckit::checkCancellation();
    scheduler_->start();
  } catch (const synckit::CancellationError&) {
    // The model is going away.
  } catch (const std::exception& error) {
    if (isSignedOut(error)) return;
    mainQueue_.post([this, alive = sessionThread_->alive, message = problemText(error)] {
      if (*alive) appState_->setErrorMessage(message);
    });
  }
}

AppState& AppModel::appState() noexcept { return *appState_; }
AuthController& AppModel::authController() noexcept { return *authController_; }
synckit::MetadataStore* AppModel::store() noexcept { return store_.get(); }
SyncScheduler* AppModel::scheduler() noexcept { return scheduler_.get(); }
DomainController* AppModel::domainController() noexcept { return domainController_.get(); }
const std::string& AppModel::baseURL() const noexcept { return baseURL_; }

void AppModel::setInboxBrain(std::optional<synckit::Uuid> id) {
  if (store_) {
    store_->setMeta(synckit::MetaKey::inboxBrainId,
                    id ? std::optional<std::string>(id->toString()) : std::nullopt);
  }
  appState_->setInboxBrainId(id);
}

void AppModel::syncNow() {
  if (scheduler_) scheduler_->pokeAll();
}

void AppModel::resync(const synckit::Uuid& brainId) {
  if (scheduler_) scheduler_->requestReset(brainId);
}

}  // namespace halvark
