#include "app/tray/tray_main.h"

#include <QApplication>
#include <QDesktopServices>
#include <QSystemTrayIcon>
#include <QUrl>
#include <cstdio>
#include <memory>
#include <thread>

#include "app/platform/app_instance.h"
#include "app/platform/login_item.h"
#include "app/platform/updater.h"
#include "app/tray/qt_main_queue.h"
#include "app/tray/tray_menu.h"
#include "synckit/api/curl_transport.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/logger.h"
#include "synckit/platform/app_identity.h"

namespace halvark {
namespace {

// "Check for Updates…" off the main thread: one check at a time, its outcome
// handed to the main queue. Lives on the main thread; destroying it stops a
// check in flight and waits for it.
class UpdateCheck {
 public:
  using Done = std::function<void(const Updater::Outcome&)>;

  UpdateCheck(Updater& updater, MainQueue& mainQueue) : updater_(updater), mainQueue_(mainQueue) {}

  void start(Done done) {
    if (running_) return;
    running_ = true;
    worker_ = std::jthread([this, done = std::move(done)](std::stop_token stop) {
      synckit::CancellationScope scope(stop);
      try {
        auto outcome = updater_.check();
        mainQueue_.post([this, done, outcome] {
          running_ = false;
          done(outcome);
        });
      } catch (const synckit::CancellationError&) {
      }
    });
  }

 private:
  Updater& updater_;
  MainQueue& mainQueue_;
  bool running_ = false;  // main thread only
  std::jthread worker_;
};

QString updateMessage(const Updater::Outcome& outcome) {
  using Kind = Updater::Outcome::Kind;
  switch (outcome.kind()) {
    case Kind::available: {
      const auto& available = std::get<Updater::Outcome::Available>(outcome.value);
      return QStringLiteral("Halvark %1 is available. Click to open %2")
          .arg(QString::fromStdString(available.version), QString::fromStdString(available.url));
    }
    case Kind::failed:
      return QString::fromStdString(std::get<Updater::Outcome::Failed>(outcome.value).text);
    case Kind::upToDate:
      break;
  }
  return QStringLiteral("You're up to date: Halvark %1 is the newest version.")
      .arg(QStringLiteral(HALVARK_VERSION));
}

}  // namespace

int runTray(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Halvark"));
  QApplication::setApplicationVersion(QStringLiteral(HALVARK_VERSION));
  QGuiApplication::setDesktopFileName(QStringLiteral("halvark"));
  // There are no windows; only "Quit" (or `halvark quit`) ends the tray.
  QApplication::setQuitOnLastWindowClosed(false);

  QtMainQueue mainQueue;
  std::unique_ptr<AppInstance> instance;
  try {
    instance = std::make_unique<AppInstance>(
        mainQueue, AppInstance::Options{.quit = [] { QCoreApplication::quit(); }});
  } catch (const synckit::Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  AppModel& model = instance->model();

  synckit::CurlTransport updateTransport;
  Updater updater(HALVARK_VERSION, updateTransport);
  auto updateCheck = std::make_unique<UpdateCheck>(updater, mainQueue);
  LoginItem loginItem;

  TrayMenu* trayMenu = nullptr;
  // Where a click on the last tray message leads: the release of an
  // available update, or nowhere.
  QUrl messageLink;
  auto showMessage = [&](const QString& title, const QString& text, const QUrl& link) {
    messageLink = link;
    if (trayMenu) trayMenu->trayIcon().showMessage(title, text, QSystemTrayIcon::Information);
  };

  TrayMenu::Actions actions;
  actions.signIn = [&] { model.authController().signIn(); };
  actions.cancelSignIn = [&] { model.authController().cancelSignIn(); };
  actions.signOut = [&] { model.authController().signOut(); };
  actions.syncNow = [&] { model.syncNow(); };
  actions.resync = [&](const synckit::Uuid& id) { model.resync(id); };
  actions.setInboxBrain = [&](std::optional<synckit::Uuid> id) { model.setInboxBrain(id); };
  actions.quit = [] { QCoreApplication::quit(); };
  actions.progress = [&] { return instance->progress(); };
  actions.notify = [&](const QString& title, const QString& text) {
    showMessage(title, text, QUrl());
  };
  actions.checkForUpdates = [&] {
    updateCheck->start([&](const Updater::Outcome& outcome) {
      QUrl link;
      if (outcome.kind() == Updater::Outcome::Kind::available)
        link =
            QUrl(QString::fromStdString(std::get<Updater::Outcome::Available>(outcome.value).url));
      showMessage(QStringLiteral("Check for Updates"), updateMessage(outcome), link);
    });
  };

  auto tray = std::make_unique<TrayMenu>(model.appState(), loginItem, std::move(actions));
  trayMenu = tray.get();
  QObject::connect(&tray->trayIcon(), &QSystemTrayIcon::messageClicked, [&] {
    if (messageLink.isValid()) QDesktopServices::openUrl(messageLink);
  });
  if (!QSystemTrayIcon::isSystemTrayAvailable()) {
    synckit::Logger(std::string(synckit::AppIdentity::applicationIdentifier), "tray")
        .error(
            "No system tray is available; Halvark runs without its icon. "
            "`halvark status` shows its state.");
  }
  tray->trayIcon().show();

  int status = QApplication::exec();

  trayMenu = nullptr;
  tray.reset();
  // Work that finishes from now on has no one to show it to.
  mainQueue.shutdown();
  updateCheck.reset();
  instance.reset();
  return status;
}

}  // namespace halvark
