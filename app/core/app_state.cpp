#include "app/core/app_state.h"

#include <exception>
#include <utility>

#include "synckit/api/sync_api_error.h"
#include "synckit/auth/session_updates.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"

namespace halvark {

// The thread that restores and follows the session. Tasks it posts hold it
// weakly: once the state is gone (and with it its only owner) they do nothing.
struct AppState::Follower {
  AppState* state = nullptr;  // dereferenced only on the main thread
  std::jthread thread;
};

namespace {

// The text shown for a failure: a sync API error's own message when the
// server sent one, otherwise the error's description.
std::string describe(const std::exception& error) {
  if (const auto* api = dynamic_cast<const synckit::SyncAPIError*>(&error)) {
    if (!api->message().empty()) return api->message();
  }
  return error.what();
}

// A session state from the token manager; a sign-in in progress owns the
// session until it ends, so the manager's news does not cut it short.
void applySessionState(AppState& state, synckit::SessionState sessionState) {
  if (state.session().kind() == Session::Kind::signingIn) return;
  state.setSession(sessionState == synckit::SessionState::signedIn
                       ? Session::signedIn(state.memberLabel())
                       : Session::signedOut());
}

template <class T>
void keepNewest(std::vector<T>& items, std::size_t count) {
  if (items.size() > count) items.erase(items.begin(), items.end() - count);
}

}  // namespace

AppState::AppState(synckit::TokenManager& tokenManager, std::function<std::string()> memberLabel,
                   MainQueue& mainQueue)
    : tokenManager_(tokenManager), memberLabel_(std::move(memberLabel)), mainQueue_(mainQueue) {}

AppState::~AppState() {
  if (!follower_) return;
  follower_->thread.request_stop();
  if (follower_->thread.joinable()) follower_->thread.join();
}

AggregateState AppState::aggregateState() const {
  bool syncing = false;
  for (const auto& row : brainStatuses_) {
    if (auto text = row.state.errorText()) return {AggregateState::Kind::error, std::move(*text)};
    syncing = syncing || row.state.kind() == synckit::BrainSyncStatus::State::Kind::syncing;
  }
  return {syncing ? AggregateState::Kind::syncing : AggregateState::Kind::idle, {}};
}

void AppState::setSession(Session session) {
  if (session_ == session) return;
  session_ = std::move(session);
  notify(Field::session);
}

void AppState::setErrorMessage(std::optional<std::string> message) {
  if (errorMessage_ == message) return;
  errorMessage_ = std::move(message);
  notify(Field::errorMessage);
}

void AppState::setBrainStatuses(std::vector<synckit::BrainSyncStatus> rows) {
  if (brainStatuses_ == rows) return;
  brainStatuses_ = std::move(rows);
  notify(Field::brainStatuses);
}

void AppState::setInboxBrainId(std::optional<synckit::Uuid> id) {
  if (inboxBrainId_ == id) return;
  inboxBrainId_ = id;
  notify(Field::inboxBrainId);
}

void AppState::clearRecentSyncErrors() {
  if (recentSyncErrors_.empty()) return;
  recentSyncErrors_.clear();
  notify(Field::recentSyncErrors);
}

void AppState::addConflictNotices(const std::vector<synckit::ConflictEvent>& events) {
  if (events.empty()) return;
  for (const auto& event : events) {
    conflictNotices_.push_back(
        ConflictNotice{synckit::Uuid::random(), event.message, event.at, event.kind});
    recentSyncErrors_.push_back(event.message);
  }
  keepNewest(conflictNotices_, maximumConflictNotices);
  keepNewest(recentSyncErrors_, maximumRecentSyncErrors);
  notify(Field::conflictNotices);
  notify(Field::recentSyncErrors);
}

void AppState::addRecentSyncError(std::string message) {
  recentSyncErrors_.push_back(std::move(message));
  keepNewest(recentSyncErrors_, maximumRecentSyncErrors);
  notify(Field::recentSyncErrors);
}

void AppState::applyStatus(std::vector<synckit::BrainSyncStatus> rows,
                           std::optional<synckit::Uuid> inbox) {
  // Rows computed just before a sign-out must not bring the brains back.
  if (session_.kind() != Session::Kind::signedIn) return;
  setBrainStatuses(std::move(rows));
  setInboxBrainId(inbox);
}

void AppState::start(std::function<void()> restored) {
  if (follower_) return;
  follower_ = std::make_shared<Follower>();
  follower_->state = this;
  // Subscribed before the restore, so that no change between the two is
  // missed.
  synckit::SessionUpdates updates = tokenManager_.updates();
  std::weak_ptr<Follower> weak = follower_;
  follower_->thread = std::jthread([weak, &tokenManager = tokenManager_, &mainQueue = mainQueue_,
                                    updates = std::move(updates),
                                    restored = std::move(restored)](std::stop_token stop) mutable {
    synckit::CancellationScope scope(stop);
    // Reading the stored tokens may wait on the desktop's secret service.
    std::optional<synckit::SessionState> state;
    std::optional<std::string> failure;
    try {
      state = tokenManager.restoreSession();
    } catch (const std::exception& error) {
      failure = describe(error);
    }
    // Each task applies the manager's state as it is when the task runs, not
    // as it was when posted: a sign-in that failed after its token exchange
    // must not be shown signed in by the news of that exchange arriving late.
    mainQueue.post([weak, &tokenManager, state, failure, restored = std::move(restored)] {
      auto follower = weak.lock();
      if (!follower) return;
      if (state) {
        applySessionState(*follower->state, tokenManager.state());
      } else {
        follower->state->setErrorMessage(failure);
      }
      if (restored) restored();
    });
    try {
      while (updates.next()) {
        mainQueue.post([weak, &tokenManager] {
          if (auto follower = weak.lock())
            applySessionState(*follower->state, tokenManager.state());
        });
      }
    } catch (const synckit::CancellationError&) {
      // The state is going away.
    }
  });
}

AppState::ObserverId AppState::observe(Observer observer) {
  ObserverId id = nextObserverId_++;
  observers_.emplace(id, std::move(observer));
  return id;
}

void AppState::unobserve(ObserverId id) { observers_.erase(id); }

void AppState::notify(Field field) {
  // Observers may observe or unobserve (themselves too) while being told; a
  // copy is called, and one removed meanwhile is skipped.
  std::vector<ObserverId> ids;
  ids.reserve(observers_.size());
  for (const auto& entry : observers_) ids.push_back(entry.first);
  for (ObserverId id : ids) {
    auto found = observers_.find(id);
    if (found == observers_.end()) continue;
    Observer observer = found->second;
    observer(field);
  }
}

}  // namespace halvark
