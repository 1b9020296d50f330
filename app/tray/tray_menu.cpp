#include "app/tray/tray_menu.h"

#include <QAction>
#include <QActionGroup>
#include <QCursor>
#include <QKeySequence>
#include <QMenu>
#include <QSignalBlocker>
#include <QSystemTrayIcon>
#include <algorithm>

#include "app/core/status_text.h"
#include "app/platform/login_item.h"
#include "synckit/base/error.h"

// The bundled icons live in a static library, whose resource initialiser the
// linker would drop unless something refers to it.
static void initTrayResources() {
  static const bool initialised = [] {
    Q_INIT_RESOURCE(tray);
    return true;
  }();
  (void)initialised;
}

namespace halvark {
namespace {

// Menu texts treat "&" as a mnemonic marker; names and messages are shown
// as they are.
QString menuText(const std::string& text) {
  return QString::fromStdString(text).replace(QLatin1Char('&'), QStringLiteral("&&"));
}

QIcon bundledIcon(const char* name) {
  return QIcon(QStringLiteral(":/halvark/icons/") + QLatin1String(name) + QStringLiteral(".svg"));
}

}  // namespace

TrayMenu::TrayMenu(AppState& appState, LoginItem& loginItem, Actions actions, synckit::Clock& clock)
    : appState_(appState),
      loginItem_(loginItem),
      actions_(std::move(actions)),
      clock_(clock),
      menu_(std::make_unique<QMenu>()),
      trayIcon_(std::make_unique<QSystemTrayIcon>()) {
  initTrayResources();
  trayIcon_->setContextMenu(menu_.get());
  // Desktops that do not open the context menu on a plain click get it too.
  connect(trayIcon_.get(), &QSystemTrayIcon::activated, this,
          [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger) menu_->popup(QCursor::pos());
          });
  connect(menu_.get(), &QMenu::aboutToShow, this, [this] { rebuild(); });
  progressTimer_.setInterval(1000);
  connect(&progressTimer_, &QTimer::timeout, this, [this] { refreshStatus(); });

  if (!appState_.conflictNotices().empty())
    lastNoticeShown_ = appState_.conflictNotices().back().id;
  observer_ = appState_.observe([this](AppState::Field field) { stateChanged(field); });
  rebuild();
}

TrayMenu::~TrayMenu() { appState_.unobserve(observer_); }

void TrayMenu::stateChanged(AppState::Field field) {
  if (field == AppState::Field::conflictNotices) showNewConflictNotices();
  refreshStatus();
  scheduleRebuild();
}

void TrayMenu::scheduleRebuild() {
  if (rebuildPending_) return;
  rebuildPending_ = true;
  QTimer::singleShot(0, this, [this] {
    if (!rebuildPending_) return;
    rebuildPending_ = false;
    // An open menu keeps its items, so that a status update every few
    // seconds does not close the submenu under the pointer; the icon, the
    // tooltip and the status line follow at once, the rest when it next
    // opens.
    if (!menu_->isVisible()) rebuild();
  });
}

void TrayMenu::rebuild() {
  rebuildPending_ = false;
  for (QMenu* submenu : submenus_) submenu->deleteLater();
  submenus_.clear();
  menu_->clear();
  statusAction_ = nullptr;

  auto addItem = [this](QMenu* menu, const QString& text, std::function<void()> action) {
    QAction* item = menu->addAction(text);
    connect(item, &QAction::triggered, this, [action = std::move(action)] {
      if (action) action();
    });
    return item;
  };
  auto addLabel = [](QMenu* menu, const QString& text) {
    QAction* item = menu->addAction(text);
    item->setEnabled(false);
    return item;
  };
  auto addSubmenu = [this](const QString& title) {
    auto* submenu = new QMenu(title, menu_.get());
    submenus_.push_back(submenu);
    menu_->addMenu(submenu);
    return submenu;
  };

  const Session& session = appState_.session();
  const bool signedIn = session.kind() == Session::Kind::signedIn;
  switch (session.kind()) {
    case Session::Kind::signedOut:
      addItem(menu_.get(), QStringLiteral("Sign In"), actions_.signIn);
      break;
    case Session::Kind::signingIn:
      addLabel(menu_.get(), QStringLiteral("Signing in…"));
      addItem(menu_.get(), QStringLiteral("Cancel Sign-In"), actions_.cancelSignIn);
      break;
    case Session::Kind::signedIn:
      addLabel(menu_.get(), QStringLiteral("Signed in: ") +
                                menuText(session.memberLabel().value_or(std::string())))
          ->setIcon(signedInIcon());
      addItem(menu_.get(), QStringLiteral("Sign Out"), actions_.signOut);
      break;
  }
  if (const auto& message = appState_.errorMessage()) addLabel(menu_.get(), menuText(*message));

  if (signedIn) {
    menu_->addSeparator();
    statusAction_ = addLabel(menu_.get(), QString());  // filled by refreshStatus()
    const synckit::Timestamp now = clock_.now();
    for (const auto& brain : appState_.brainStatuses()) {
      QMenu* submenu = addSubmenu(menuText(StatusText::brainTitle(brain, now)));
      addLabel(submenu, menuText(StatusText::statusLine(brain.state)));
      addItem(submenu, QStringLiteral("Resync"), [this, id = brain.brainId] {
        if (actions_.resync) actions_.resync(id);
      });
    }
    addItem(menu_.get(), QStringLiteral("Sync Now"), actions_.syncNow);

    QMenu* inbox = addSubmenu(QStringLiteral("Inbox Brain"));
    auto* choices = new QActionGroup(inbox);
    choices->setExclusive(true);
    auto addChoice = [&](const QString& text, std::optional<synckit::Uuid> id) {
      QAction* choice = addItem(inbox, text, [this, id] {
        if (actions_.setInboxBrain) actions_.setInboxBrain(id);
      });
      choice->setCheckable(true);
      choice->setChecked(appState_.inboxBrainId() == id);
      choices->addAction(choice);
    };
    for (const auto& brain : appState_.brainStatuses())
      addChoice(menuText(brain.name), brain.brainId);
    inbox->addSeparator();
    addChoice(QStringLiteral("None"), std::nullopt);
  }

  if (!appState_.recentSyncErrors().empty()) {
    menu_->addSeparator();
    QMenu* errors = addSubmenu(QStringLiteral("Recent Sync Errors"));
    for (const auto& text : appState_.recentSyncErrors()) addLabel(errors, menuText(text));
    errors->addSeparator();
    addItem(errors, QStringLiteral("Clear"), [this] { appState_.clearRecentSyncErrors(); });
  }

  menu_->addSeparator();
  loginItemAction_ = menu_->addAction(QStringLiteral("Start at Login"));
  loginItemAction_->setCheckable(true);
  loginItemAction_->setChecked(loginItem_.enabled());
  connect(loginItemAction_, &QAction::triggered, this, [this](bool on) { toggleLoginItem(on); });
  addItem(menu_.get(), QStringLiteral("Check for Updates…"), actions_.checkForUpdates);

  menu_->addSeparator();
  addLabel(menu_.get(), menuText(StatusText::versionLine(HALVARK_VERSION, HALVARK_BUILD)));
  QAction* quit = addItem(menu_.get(), QStringLiteral("Quit"), actions_.quit);
  quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
  quit->setShortcutVisibleInContextMenu(true);

  refreshStatus();
}

void TrayMenu::refreshStatus() {
  const bool signedIn = appState_.session().kind() == Session::Kind::signedIn;
  if (signedIn) {
    if (!progressTimer_.isActive()) progressTimer_.start();
  } else {
    progressTimer_.stop();
  }
  const auto kind = signedIn ? appState_.aggregateState().kind : AggregateState::Kind::idle;
  if (!iconKind_ || *iconKind_ != kind) {
    trayIcon_->setIcon(stateIcon(kind));
    iconKind_ = kind;
  }
  QString tooltip = QStringLiteral("Halvark");
  if (signedIn) {
    std::string text = statusText();
    tooltip += QStringLiteral(" — ") + QString::fromStdString(text);
    if (statusAction_) statusAction_->setText(menuText(text));
  }
  if (trayIcon_->toolTip() != tooltip) trayIcon_->setToolTip(tooltip);
}

std::string TrayMenu::statusText() const {
  if (actions_.progress) {
    if (auto line = StatusText::progressLine(actions_.progress())) return *line;
  }
  return StatusText::statusLine(appState_.aggregateState());
}

void TrayMenu::toggleLoginItem(bool on) {
  try {
    loginItem_.setEnabled(on);
  } catch (const synckit::Error& error) {
    appState_.setErrorMessage("Start at Login: " + error.description());
  }
  // Whatever happened, the toggle shows what the session manager will do.
  if (loginItemAction_) {
    QSignalBlocker blocker(loginItemAction_);
    loginItemAction_->setChecked(loginItem_.enabled());
  }
}

void TrayMenu::showNewConflictNotices() {
  const auto& notices = appState_.conflictNotices();
  auto first = notices.begin();
  if (lastNoticeShown_) {
    auto last = std::find_if(notices.begin(), notices.end(), [&](const ConflictNotice& notice) {
      return notice.id == *lastNoticeShown_;
    });
    // A shown notice that was pushed out means every notice held is new.
    if (last != notices.end()) first = last + 1;
  }
  if (first == notices.end()) return;
  QStringList messages;
  for (auto notice = first; notice != notices.end(); ++notice)
    messages << QString::fromStdString(notice->message);
  lastNoticeShown_ = notices.back().id;
  notify(QStringLiteral("Halvark"), messages.join(QLatin1Char('\n')));
}

void TrayMenu::notify(const QString& title, const QString& text) {
  if (actions_.notify) {
    actions_.notify(title, text);
  } else {
    trayIcon_->showMessage(title, text, QSystemTrayIcon::Information);
  }
}

QIcon TrayMenu::stateIcon(AggregateState::Kind kind) {
  switch (kind) {
    case AggregateState::Kind::syncing:
      return QIcon::fromTheme(
          QStringLiteral("halvark-syncing"),
          QIcon::fromTheme(QStringLiteral("view-refresh"), bundledIcon("halvark-syncing")));
    case AggregateState::Kind::error:
      return QIcon::fromTheme(
          QStringLiteral("halvark-error"),
          QIcon::fromTheme(QStringLiteral("dialog-warning"), bundledIcon("halvark-error")));
    case AggregateState::Kind::idle:
      break;
  }
  return QIcon::fromTheme(QStringLiteral("halvark"), bundledIcon("halvark"));
}

QIcon TrayMenu::signedInIcon() {
  return QIcon::fromTheme(
      QStringLiteral("emblem-ok"),
      QIcon::fromTheme(QStringLiteral("object-select"), bundledIcon("halvark-signed-in")));
}

}  // namespace halvark
