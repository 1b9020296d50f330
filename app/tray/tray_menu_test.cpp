#include "app/tray/tray_menu.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QDir>
#include <QGuiApplication>
#include <QMenu>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTest>
#include <set>

#include "app/platform/login_item.h"
#include "app/tray/qt_main_queue.h"
#include "app/tray/testing/qt_application_environment.h"
#include "synckit/auth/token_manager.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/testing/fake_clock.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::BrainSyncStatus;
using synckit::ProviderProgress;
using synckit::Uuid;
using Strings = std::vector<std::string>;

const Uuid notesId = *Uuid::parse("0A000000-0000-4000-8000-000000000001");
const Uuid workId = *Uuid::parse("0B000000-0000-4000-8000-000000000002");
const std::string versionLine = "Halvark " HALVARK_VERSION " (" HALVARK_BUILD ")";

// An item's text as the menu shows it ("&&" is a literal "&", a single "&"
// marks the mnemonic); "---" for a separator.
std::string shown(const QAction* action) {
  if (action->isSeparator()) return "---";
  return action->text().replace("&&", "\x01").remove('&').replace('\x01', '&').toStdString();
}

Strings texts(const QMenu& menu) {
  Strings result;
  for (QAction* action : menu.actions()) result.push_back(shown(action));
  return result;
}

QAction* item(const QMenu& menu, const std::string& text) {
  for (QAction* action : menu.actions()) {
    if (shown(action) == text) return action;
  }
  throw std::runtime_error("no item " + text);
}

struct TrayMenuTest : ::testing::Test {
  TrayMenuTest() {
    environment.set("XDG_CONFIG_HOME", (directory / "config").string())
        .set("XDG_CONFIG_DIRS", (directory / "system").string());
  }

  // Lets the rebuilds that state changes schedule run.
  void settle() { QCoreApplication::processEvents(); }

  TrayMenu::Actions actions() {
    auto record = [this](std::string call) { return [this, call] { calls.push_back(call); }; };
    TrayMenu::Actions result;
    result.signIn = record("signIn");
    result.cancelSignIn = record("cancelSignIn");
    result.syncNow = record("syncNow");
    result.resync = [this](const Uuid& id) { calls.push_back("resync " + id.toString()); };
    result.setInboxBrain = [this](std::optional<Uuid> id) {
      calls.push_back("inbox " + (id ? id->toString() : std::string("none")));
    };
    result.progress = [this] { return progress; };
    result.notify = [this](const QString&, const QString& text) {
      notifications.push_back(text.toStdString());
    };
    return result;
  }

  synckit::testing::TemporaryDirectory directory;
  synckit::testing::ScopedEnvironment environment;
  synckit::testing::FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens;
  synckit::TokenManager tokenManager{"https://sync.example.test", transport, tokens,
                                     [] { return std::string("client"); }};
  QtMainQueue mainQueue;
  AppState state{tokenManager, [] { return std::string("Computer"); }, mainQueue};
  LoginItem loginItem{"halvark"};
  synckit::testing::FakeClock clock;
  Strings calls;
  Strings notifications;
  std::optional<ProviderProgress> progress;
  TrayMenu tray{state, loginItem, actions(), clock};
};

TEST_F(TrayMenuTest, SignedOutAndSigningInShowNothingOfTheSync) {
  EXPECT_EQ(texts(tray.menu()), (Strings{"Sign In", "---", "Start at Login", "Check for Updates…",
                                         "---", versionLine, "Quit"}));
  item(tray.menu(), "Sign In")->trigger();
  EXPECT_EQ(tray.trayIcon().toolTip(), "Halvark");

  // Brains and progress still around show nothing while signing in; the
  // recent errors are shown in every state.
  state.setBrainStatuses({{notesId, "Notes", BrainSyncStatus::State::idle(), {}, 0}});
  progress = ProviderProgress{3, 300, false, {}};
  state.setSession(Session::signingIn());
  state.setErrorMessage("Sign-in failed: the server is down");
  state.addRecentSyncError("Upload failed");
  settle();
  EXPECT_EQ(texts(tray.menu()),
            (Strings{"Signing in…", "Cancel Sign-In", "Sign-in failed: the server is down", "---",
                     "Recent Sync Errors", "---", "Start at Login", "Check for Updates…", "---",
                     versionLine, "Quit"}));
  EXPECT_FALSE(item(tray.menu(), "Signing in…")->isEnabled());
  item(tray.menu(), "Cancel Sign-In")->trigger();
  EXPECT_EQ(calls, (Strings{"signIn", "cancelSignIn"}));
}

// CTest also runs this one under Xvfb (QT_QPA_PLATFORM=xcb), where the
// picture is taken from the X screen; either way it is kept as an artifact.
TEST_F(TrayMenuTest, SignedInShowsTheStatusTheBrainsAndThePickerInOrderOnAScreen) {
  state.setSession(Session::signedIn("Computer"));
  const auto fiveMinutesAgo =
      synckit::Timestamp::fromMilliseconds(clock.now().millisecondsSinceEpoch() - 5 * 60'000);
  state.setBrainStatuses(
      {{notesId, "Notes & Ideas", BrainSyncStatus::State::idle(), std::nullopt, 2},
       {workId, "Work", BrainSyncStatus::State::syncing(), fiveMinutesAgo, 0}});
  state.setInboxBrainId(workId);
  state.setErrorMessage("Some problem");
  state.addRecentSyncError("Upload of “a.txt” failed");
  progress = ProviderProgress{3, 2'500'000, false, {}};
  settle();

  QMenu& menu = tray.menu();
  menu.popup(QPoint(10, 10));
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&menu));
  const std::string notesTitle = "Notes & Ideas — Not synced yet — ⚠ 2";
  EXPECT_EQ(texts(menu), (Strings{"Signed in: Computer", "Sign Out", "Some problem", "---",
                                  "Downloading 3 files (2.5 MB) left", notesTitle,
                                  "Work — 5 minutes ago — Syncing…", "Sync Now", "Inbox Brain",
                                  "---", "Recent Sync Errors", "---", "Start at Login",
                                  "Check for Updates…", "---", versionLine, "Quit"}));
  EXPECT_EQ(tray.trayIcon().toolTip().toStdString(), "Halvark — Downloading 3 files (2.5 MB) left");
  EXPECT_EQ(item(menu, "Quit")->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
  QTest::qWait(100);
  const QRect area = menu.geometry();
  QImage picture =
      QGuiApplication::platformName() == "xcb"
          ? menu.screen()->grabWindow(0, area.x(), area.y(), area.width(), area.height()).toImage()
          : menu.grab().toImage();
  // Drawn text antialiases into many shades; an unpainted window has one.
  std::set<QRgb> colours;
  for (int y = 0; y < picture.height(); y += 2) {
    for (int x = 0; x < picture.width(); x += 2) colours.insert(picture.pixel(x, y));
  }
  EXPECT_GT(colours.size(), 10u);
  const QString folder = qEnvironmentVariable("HALVARK_TEST_ARTIFACTS", "test-artifacts");
  QDir().mkpath(folder);
  EXPECT_TRUE(picture.save(folder + "/tray_menu_" + QGuiApplication::platformName() + ".png"));

  // A status update while the menu is open keeps its submenus (the pointer
  // may be in one) but shows the new status line at once.
  QMenu* notes = item(menu, notesTitle)->menu();
  progress.reset();
  state.setBrainStatuses({state.brainStatuses()[0],
                          {workId, "Work", BrainSyncStatus::State::error("Offline"), {}, 0}});
  settle();
  EXPECT_EQ(item(menu, notesTitle)->menu(), notes);
  EXPECT_EQ(texts(menu)[4], "Sync error: Offline");
  menu.hide();

  EXPECT_EQ(texts(*notes), (Strings{"Up to date", "Resync"}));
  item(*notes, "Resync")->trigger();
  item(menu, "Sync Now")->trigger();
  QMenu& inbox = *item(menu, "Inbox Brain")->menu();
  EXPECT_EQ(texts(inbox), (Strings{"Notes & Ideas", "Work", "---", "None"}));
  EXPECT_TRUE(item(inbox, "Work")->isChecked());
  EXPECT_FALSE(item(inbox, "Notes & Ideas")->isChecked() || item(inbox, "None")->isChecked());
  item(inbox, "None")->trigger();
  EXPECT_EQ(calls, (Strings{"resync " + notesId.toString(), "syncNow", "inbox none"}));
  QMenu& errors = *item(menu, "Recent Sync Errors")->menu();
  EXPECT_EQ(texts(errors), (Strings{"Upload of “a.txt” failed", "---", "Clear"}));
  item(errors, "Clear")->trigger();
  EXPECT_TRUE(state.recentSyncErrors().empty());

  // Opening the menu again brings the relative times up to date.
  state.setBrainStatuses({{workId, "Work", BrainSyncStatus::State::idle(), fiveMinutesAgo, 0}});
  clock.advance(std::chrono::minutes(1));
  emit menu.aboutToShow();
  EXPECT_EQ(texts(menu)[5], "Work — 6 minutes ago");

  // Each new conflict notice is shown once.
  auto event = [](std::string message) {
    synckit::ConflictEvent event;
    event.message = std::move(message);
    return event;
  };
  state.addConflictNotices({event("first"), event("second")});
  state.addConflictNotices({event("third")});
  EXPECT_EQ(notifications, (Strings{"first\nsecond", "third"}));
}

TEST_F(TrayMenuTest, ARefusedLoginItemLeavesTheToggleOffAndShowsTheReason) {
  const auto autostart = directory / "config" / "autostart";
  synckit::AtomicFile::createDirectories(autostart.parent_path());
  synckit::AtomicFile::write(autostart, synckit::toBytes("in the way"));

  QAction* toggle = item(tray.menu(), "Start at Login");
  toggle->trigger();
  EXPECT_FALSE(toggle->isChecked());
  ASSERT_TRUE(state.errorMessage());
  EXPECT_TRUE(state.errorMessage()->starts_with("Start at Login: ")) << *state.errorMessage();
  settle();
  EXPECT_EQ(texts(tray.menu())[1], *state.errorMessage());

  std::filesystem::remove(autostart);
  item(tray.menu(), "Start at Login")->trigger();
  EXPECT_TRUE(item(tray.menu(), "Start at Login")->isChecked());
}

TEST(TrayMenuLooks, BundledIconsRenderWithoutATheme) {
  for (auto kind :
       {AggregateState::Kind::idle, AggregateState::Kind::syncing, AggregateState::Kind::error}) {
    EXPECT_FALSE(TrayMenu::stateIcon(kind).pixmap(22).isNull());
  }
  EXPECT_FALSE(TrayMenu::signedInIcon().pixmap(16).isNull());
}

}  // namespace
}  // namespace halvark
