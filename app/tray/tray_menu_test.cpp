#include "app/tray/tray_menu.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QCoreApplication>
#include <QDir>
#include <QGuiApplication>
#include <QImage>
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
using synckit::Uuid;
using Strings = std::vector<std::string>;

const Uuid notesId = *Uuid::parse("0A000000-0000-4000-8000-000000000001");
const Uuid workId = *Uuid::parse("0B000000-0000-4000-8000-000000000002");
const std::string versionLine = "Halvark " HALVARK_VERSION " (" HALVARK_BUILD ")";

// An item's text as the menu shows it: "&&" is a literal "&", a single "&"
// only marks the mnemonic.
std::string shown(const QAction* action) {
  std::string text = action->text().toStdString();
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '&' && ++i == text.size()) break;
    result += text[i];
  }
  return result;
}

// What the menu shows, item by item: "---" for a separator, the title for a
// submenu.
Strings texts(const QMenu& menu) {
  Strings result;
  for (QAction* action : menu.actions())
    result.push_back(action->isSeparator() ? std::string("---") : shown(action));
  return result;
}

QAction* item(const QMenu& menu, const std::string& text) {
  for (QAction* action : menu.actions()) {
    if (!action->isSeparator() && shown(action) == text) return action;
  }
  ADD_FAILURE() << "no item \"" << text << "\"";
  return nullptr;
}

QMenu& submenu(const QMenu& menu, const std::string& title) {
  QAction* action = item(menu, title);
  if (!action || !action->menu()) throw std::runtime_error("no submenu " + title);
  return *action->menu();
}

struct TrayMenuTest : ::testing::Test {
  TrayMenuTest() {
    environment.set("XDG_CONFIG_HOME", (directory / "config").string())
        .set("XDG_CONFIG_DIRS", (directory / "system").string());
  }

  // Lets the rebuilds that state changes schedule run.
  void settle() { QCoreApplication::processEvents(); }

  // Signed in, two brains (one never synced with two upload errors, one
  // syncing), an error message, a recent sync error and a download running.
  void signInWithTwoBrains() {
    state.setSession(Session::signedIn("Computer"));
    state.setBrainStatuses(
        {{notesId, "Notes & Ideas", BrainSyncStatus::State::idle(), std::nullopt, 2},
         {workId, "Work", BrainSyncStatus::State::syncing(),
          synckit::Timestamp::fromMilliseconds(clock.now().millisecondsSinceEpoch() - 5 * 60'000),
          0}});
    state.setInboxBrainId(workId);
    state.setErrorMessage("Some problem");
    state.addRecentSyncError("Upload of “a.txt” failed");
    progress = synckit::ProviderProgress{3, 2'500'000, false, {}};
    settle();
  }
  const Strings signedInItems{"Signed in: Computer",
                              "Sign Out",
                              "Some problem",
                              "---",
                              "Downloading 3 files (2.5 MB) left",
                              "Notes & Ideas — Not synced yet — ⚠ 2",
                              "Work — 5 minutes ago — Syncing…",
                              "Sync Now",
                              "Inbox Brain",
                              "---",
                              "Recent Sync Errors",
                              "---",
                              "Start at Login",
                              "Check for Updates…",
                              "---",
                              versionLine,
                              "Quit"};

  TrayMenu::Actions actions() {
    TrayMenu::Actions result;
    result.signIn = [this] { calls.push_back("signIn"); };
    result.cancelSignIn = [this] { calls.push_back("cancelSignIn"); };
    result.signOut = [this] { calls.push_back("signOut"); };
    result.syncNow = [this] { calls.push_back("syncNow"); };
    result.resync = [this](const Uuid& id) { calls.push_back("resync " + id.toString()); };
    result.setInboxBrain = [this](std::optional<Uuid> id) {
      calls.push_back("inbox " + (id ? id->toString() : std::string("none")));
    };
    result.quit = [this] { calls.push_back("quit"); };
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
  std::optional<synckit::ProviderProgress> progress;
  TrayMenu tray{state, loginItem, actions(), clock};
};

TEST_F(TrayMenuTest, SignedOutAndSigningInShowNothingOfTheSync) {
  EXPECT_EQ(texts(tray.menu()), (Strings{"Sign In", "---", "Start at Login", "Check for Updates…",
                                         "---", versionLine, "Quit"}));
  item(tray.menu(), "Sign In")->trigger();
  EXPECT_EQ(calls, Strings{"signIn"});
  EXPECT_EQ(tray.trayIcon().toolTip(), "Halvark");

  // Brains, progress and errors that are still around change nothing about
  // the sync items while signing in; the recent errors are shown anyway.
  state.setBrainStatuses({{notesId, "Notes", BrainSyncStatus::State::idle(), {}, 0}});
  progress = synckit::ProviderProgress{3, 300, false, {}};
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

TEST_F(TrayMenuTest, SignedInShowsTheStatusTheBrainsAndThePickerInOrder) {
  signInWithTwoBrains();
  const QMenu& menu = tray.menu();
  EXPECT_EQ(texts(menu), signedInItems);
  EXPECT_EQ(tray.trayIcon().toolTip().toStdString(), "Halvark — Downloading 3 files (2.5 MB) left");
  EXPECT_EQ(item(menu, "Quit")->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));

  QMenu& notes = submenu(menu, "Notes & Ideas — Not synced yet — ⚠ 2");
  EXPECT_EQ(texts(notes), (Strings{"Up to date", "Resync"}));
  item(notes, "Resync")->trigger();
  item(menu, "Sync Now")->trigger();

  QMenu& inbox = submenu(menu, "Inbox Brain");
  EXPECT_EQ(texts(inbox), (Strings{"Notes & Ideas", "Work", "---", "None"}));
  EXPECT_FALSE(item(inbox, "Notes & Ideas")->isChecked());
  EXPECT_TRUE(item(inbox, "Work")->isChecked());
  EXPECT_FALSE(item(inbox, "None")->isChecked());
  item(inbox, "None")->trigger();
  EXPECT_EQ(calls, (Strings{"resync " + notesId.toString(), "syncNow", "inbox none"}));

  QMenu& errors = submenu(menu, "Recent Sync Errors");
  EXPECT_EQ(texts(errors), (Strings{"Upload of “a.txt” failed", "---", "Clear"}));
  item(errors, "Clear")->trigger();
  EXPECT_TRUE(state.recentSyncErrors().empty());

  // Showing the menu brings the relative times and the progress up to date.
  progress.reset();
  clock.advance(std::chrono::minutes(1));
  emit tray.menu().aboutToShow();
  const Strings shown = texts(tray.menu());
  EXPECT_EQ(shown[4], "Syncing…");
  EXPECT_EQ(shown[6], "Work — 6 minutes ago — Syncing…");
  EXPECT_EQ(std::count(shown.begin(), shown.end(), "Recent Sync Errors"), 0);

  // Each new conflict notice is shown once.
  auto event = [](std::string message) {
    return synckit::ConflictEvent{synckit::ConflictEvent::Kind::conflictedCopy,
                                  notesId,
                                  "a.txt",
                                  std::nullopt,
                                  std::move(message),
                                  {}};
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
  ASSERT_TRUE(toggle->isCheckable());
  toggle->trigger();
  EXPECT_FALSE(toggle->isChecked());
  ASSERT_TRUE(state.errorMessage());
  EXPECT_TRUE(state.errorMessage()->starts_with("Start at Login: ")) << *state.errorMessage();
  settle();
  EXPECT_EQ(texts(tray.menu())[1], *state.errorMessage());

  std::filesystem::remove(autostart);
  item(tray.menu(), "Start at Login")->trigger();
  EXPECT_TRUE(item(tray.menu(), "Start at Login")->isChecked());
  EXPECT_TRUE(loginItem.enabled());
}

// CTest also runs this one under Xvfb (QT_QPA_PLATFORM=xcb), where the
// picture is taken from the X screen. Either way it is kept as an artifact.
TEST_F(TrayMenuTest, TheSignedInMenuShowsOnAScreen) {
  signInWithTwoBrains();
  QMenu& menu = tray.menu();
  menu.popup(QPoint(10, 10));
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&menu));
  EXPECT_EQ(texts(menu), signedInItems);
  QTest::qWait(100);

  // A status update while the menu is open keeps its submenus (the pointer
  // may be in one) but shows the new status line at once.
  QMenu* notes = &submenu(menu, signedInItems[5]);
  progress.reset();
  state.setBrainStatuses({state.brainStatuses()[0],
                          {workId, "Work", BrainSyncStatus::State::error("Offline"), {}, 0}});
  settle();
  EXPECT_EQ(&submenu(menu, signedInItems[5]), notes);
  EXPECT_EQ(texts(menu)[4], "Sync error: Offline");

  const bool onX = QGuiApplication::platformName() == QStringLiteral("xcb");
  const QRect area = menu.geometry();
  QImage picture =
      onX ? menu.screen()->grabWindow(0, area.x(), area.y(), area.width(), area.height()).toImage()
          : menu.grab().toImage();
  menu.hide();
  ASSERT_FALSE(picture.isNull());
  EXPECT_GT(picture.width(), 100);
  EXPECT_GT(picture.height(), 200);
  // Drawn text antialiases into many shades; an empty or unpainted window
  // has one or two.
  std::set<QRgb> colours;
  for (int y = 0; y < picture.height(); y += 2) {
    for (int x = 0; x < picture.width(); x += 2) colours.insert(picture.pixel(x, y));
  }
  EXPECT_GT(colours.size(), 10u);

  QString folder = qEnvironmentVariable("HALVARK_TEST_ARTIFACTS", QStringLiteral("test-artifacts"));
  QDir().mkpath(folder);
  const QString file = folder + QStringLiteral("/tray_menu_") + QGuiApplication::platformName() +
                       QStringLiteral(".png");
  EXPECT_TRUE(picture.save(file)) << file.toStdString();
}

TEST(TrayMenuIcons, TheBundledIconsRenderWithoutAnIconTheme) {
  for (auto kind :
       {AggregateState::Kind::idle, AggregateState::Kind::syncing, AggregateState::Kind::error}) {
    EXPECT_FALSE(TrayMenu::stateIcon(kind).pixmap(22).isNull());
  }
  EXPECT_FALSE(TrayMenu::signedInIcon().pixmap(16).isNull());
}

TEST(TrayMenuProgress, CountsFilesAndBytesLeftOnlyWhileDownloading) {
  using synckit::ProviderProgress;
  EXPECT_EQ(TrayMenu::progressLine(std::nullopt), std::nullopt);
  EXPECT_EQ(TrayMenu::progressLine(ProviderProgress{4, 100, true, {}}), std::nullopt);
  EXPECT_EQ(TrayMenu::progressLine(ProviderProgress{0, 0, false, {}}), std::nullopt);
  EXPECT_EQ(TrayMenu::progressLine(ProviderProgress{1, 999, false, {}}),
            "Downloading 1 file (999 bytes) left");
  EXPECT_EQ(TrayMenu::progressLine(ProviderProgress{12, 340'000, false, {}}),
            "Downloading 12 files (340 KB) left");
  EXPECT_EQ(TrayMenu::progressLine(ProviderProgress{2, 999'999, false, {}}),
            "Downloading 2 files (1.0 MB) left");
}

}  // namespace
}  // namespace halvark
