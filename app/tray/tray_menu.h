#pragma once

#include <QIcon>
#include <QObject>
#include <QString>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/core/app_state.h"
#include "synckit/base/clock.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/provider_progress.h"

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace halvark {

class LoginItem;

// The tray icon and its menu, drawn from AppState: the account section, the
// error message, (signed in) the status line, one submenu per brain, "Sync
// Now" and the inbox picker, the recent sync errors, "Start at Login",
// "Check for Updates…", the version line and "Quit". The menu is rebuilt
// after the state changes (on the next turn of the event loop, so that an
// item's own action never deletes it while it runs) and each time it is
// about to show, which also brings the relative times up to date. New
// conflict notices are shown as tray messages. While signed in, the
// provider's progress is polled every second for the status line.
//
// Lives on the Qt main thread, which must be the AppState's main thread.
class TrayMenu : public QObject {
 public:
  // What the items do. Each may be empty (the item then does nothing).
  struct Actions {
    std::function<void()> signIn;
    std::function<void()> cancelSignIn;
    std::function<void()> signOut;
    std::function<void()> syncNow;
    std::function<void(const synckit::Uuid&)> resync;
    std::function<void(std::optional<synckit::Uuid>)> setInboxBrain;
    std::function<void()> checkForUpdates;
    std::function<void()> quit;
    // What the provider still has to download.
    std::function<std::optional<synckit::ProviderProgress>()> progress;
    // Shows a desktop notification; the tray icon's message when empty.
    std::function<void(const QString& title, const QString& text)> notify;
  };

  // `appState`, `loginItem` and `clock` must outlive the menu.
  TrayMenu(AppState& appState, LoginItem& loginItem, Actions actions,
           synckit::Clock& clock = synckit::Clock::system());
  ~TrayMenu() override;
  TrayMenu(const TrayMenu&) = delete;
  TrayMenu& operator=(const TrayMenu&) = delete;

  QMenu& menu() noexcept { return *menu_; }
  QSystemTrayIcon& trayIcon() noexcept { return *trayIcon_; }

  // Builds the menu from the state now.
  void rebuild();
  // Shows `text` as a tray message (or through Actions::notify).
  void notify(const QString& title, const QString& text);

  // Theme icons by freedesktop name, with the bundled ones as fallbacks.
  static QIcon stateIcon(AggregateState::Kind kind);
  static QIcon signedInIcon();

 private:
  void stateChanged(AppState::Field field);
  void scheduleRebuild();
  void showNewConflictNotices();
  // The icon, the tooltip and the status line; progress is polled only
  // while signed in.
  void refreshStatus();
  std::string statusText() const;
  void toggleLoginItem(bool on);

  AppState& appState_;
  LoginItem& loginItem_;
  Actions actions_;
  synckit::Clock& clock_;
  std::unique_ptr<QMenu> menu_;
  std::unique_ptr<QSystemTrayIcon> trayIcon_;
  std::vector<QMenu*> submenus_;
  QAction* statusAction_ = nullptr;
  QAction* loginItemAction_ = nullptr;
  QTimer progressTimer_;
  bool rebuildPending_ = false;
  std::optional<AggregateState::Kind> iconKind_;
  std::optional<synckit::Uuid> lastNoticeShown_;
  AppState::ObserverId observer_ = 0;
};

}  // namespace halvark
