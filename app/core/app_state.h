#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/core/conflict_notice.h"
#include "app/core/main_queue.h"
#include "app/core/session.h"
#include "synckit/base/uuid.h"
#include "synckit/conflicts/conflict_event.h"
#include "synckit/engine/brain_sync_status.h"

namespace synckit {
class TokenManager;
}

namespace halvark {

// What the label and the status line show for all brains together.
struct AggregateState {
  enum class Kind { idle, syncing, error };
  Kind kind = Kind::idle;
  std::string errorText;  // the message of the error case; empty otherwise

  bool operator==(const AggregateState&) const = default;
};

// The state the interface draws: the session, the one problem shown, the
// conflict notices, the brains' status rows, the inbox brain and the recent
// sync errors. Lives on the main thread: every member must be called there
// (the MainQueue's thread), and observers are called there, synchronously,
// after each change of a published field.
class AppState {
 public:
  // The published fields, named as observers are told about them.
  enum class Field {
    session,
    errorMessage,
    conflictNotices,
    brainStatuses,
    inboxBrainId,
    recentSyncErrors
  };
  using Observer = std::function<void(Field)>;
  using ObserverId = std::uint64_t;

  static constexpr std::size_t maximumConflictNotices = 20;
  static constexpr std::size_t maximumRecentSyncErrors = 5;

  // `tokenManager` and `mainQueue` must outlive the state. `memberLabel` is
  // asked on the main thread each time the session turns signed in.
  AppState(synckit::TokenManager& tokenManager, std::function<std::string()> memberLabel,
           MainQueue& mainQueue);
  // Stops following the token manager.
  ~AppState();
  AppState(const AppState&) = delete;
  AppState& operator=(const AppState&) = delete;

  const Session& session() const noexcept { return session_; }
  const std::optional<std::string>& errorMessage() const noexcept { return errorMessage_; }
  // Newest last, at most maximumConflictNotices.
  const std::vector<ConflictNotice>& conflictNotices() const noexcept { return conflictNotices_; }
  const std::vector<synckit::BrainSyncStatus>& brainStatuses() const noexcept {
    return brainStatuses_;
  }
  const std::optional<synckit::Uuid>& inboxBrainId() const noexcept { return inboxBrainId_; }
  // Newest last, at most maximumRecentSyncErrors.
  const std::vector<std::string>& recentSyncErrors() const noexcept { return recentSyncErrors_; }

  // The label a signed-in session shows, from the function given at
  // construction.
  std::string memberLabel() const { return memberLabel_(); }

  // Error when a brain is in error (the first one's text), else syncing when
  // one syncs, else idle.
  AggregateState aggregateState() const;

  // Each setter tells the observers only when the value changed.
  void setSession(Session session);
  void setErrorMessage(std::optional<std::string> message);
  void setBrainStatuses(std::vector<synckit::BrainSyncStatus> rows);
  void setInboxBrainId(std::optional<synckit::Uuid> id);
  void clearRecentSyncErrors();

  // Appends a notice per event (and its message to the recent sync errors),
  // keeping the newest maximumConflictNotices.
  void addConflictNotices(const std::vector<synckit::ConflictEvent>& events);
  // Appends, keeping the newest maximumRecentSyncErrors.
  void addRecentSyncError(std::string message);
  // The scheduler's status rows and inbox brain; dropped unless signed in.
  void applyStatus(std::vector<synckit::BrainSyncStatus> rows, std::optional<synckit::Uuid> inbox);

  // Follows the token manager's session changes (left alone while signing
  // in) and restores the stored session; the keychain is read off the main
  // thread and the result applied on it. A second call does nothing. A
  // failed restore shows its description in errorMessage. `restored` runs on
  // the main thread once the restore is applied (or failed).
  void start(std::function<void()> restored = {});

  ObserverId observe(Observer observer);
  void unobserve(ObserverId id);

 private:
  struct Follower;

  void notify(Field field);

  synckit::TokenManager& tokenManager_;
  std::function<std::string()> memberLabel_;
  MainQueue& mainQueue_;

  Session session_;
  std::optional<std::string> errorMessage_;
  std::vector<ConflictNotice> conflictNotices_;
  std::vector<synckit::BrainSyncStatus> brainStatuses_;
  std::optional<synckit::Uuid> inboxBrainId_;
  std::vector<std::string> recentSyncErrors_;

  std::map<ObserverId, Observer> observers_;
  ObserverId nextObserverId_ = 1;
  // The thread that reads the token manager's updates and the flag that
  // tells its posted tasks whether this state still exists.
  std::shared_ptr<Follower> follower_;
};

}  // namespace halvark
