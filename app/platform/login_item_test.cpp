#include "app/platform/login_item.h"

#include <gtest/gtest.h>

#include <string>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::testing::ScopedEnvironment;
using synckit::testing::TemporaryDirectory;

std::string readText(const std::filesystem::path& file) {
  auto bytes = synckit::AtomicFile::read(file);
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

void writeText(const std::filesystem::path& file, const std::string& text) {
  synckit::AtomicFile::createDirectories(file.parent_path());
  synckit::AtomicFile::write(file, synckit::toBytes(text));
}

class LoginItemTest : public ::testing::Test {
 protected:
  LoginItemTest() {
    environment.set("XDG_CONFIG_HOME", (directory / "config").string())
        .set("XDG_CONFIG_DIRS", (directory / "system").string());
  }

  TemporaryDirectory directory;
  ScopedEnvironment environment;
  std::filesystem::path userEntry = directory / "config/autostart/halvark.desktop";
  std::filesystem::path systemEntry = directory / "system/autostart/halvark.desktop";
};

TEST_F(LoginItemTest, SwitchingOnWritesAnEntryThatStartsTheExecutableAndOffRemovesIt) {
  LoginItem item("/opt/Halvark 2/bin/halvark");
  EXPECT_FALSE(item.enabled());

  item.setEnabled(true);
  EXPECT_TRUE(item.enabled());
  std::string text = readText(userEntry);
  EXPECT_NE(text.find("Exec=\"/opt/Halvark 2/bin/halvark\"\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("Hidden"), std::string::npos) << text;

  item.setEnabled(false);
  EXPECT_FALSE(item.enabled());
  EXPECT_FALSE(std::filesystem::exists(userEntry));
}

TEST_F(LoginItemTest, ASystemWideEntryCountsUntilTheUserHidesIt) {
  writeText(systemEntry, "[Desktop Entry]\nType=Application\nExec=halvark\n");
  LoginItem item("halvark");
  EXPECT_TRUE(item.enabled());

  // Removing the user's entry would leave the system-wide one starting
  // Halvark, so switching off must shadow it.
  item.setEnabled(false);
  EXPECT_FALSE(item.enabled());
  EXPECT_NE(readText(userEntry).find("Hidden=true"), std::string::npos);
  item.setEnabled(true);
  EXPECT_TRUE(item.enabled());

  // What the session would skip is off; keys of other groups do not count.
  writeText(userEntry, "[Desktop Entry]\nExec=halvark\nX-GNOME-Autostart-enabled = false\n");
  EXPECT_FALSE(item.enabled());
  writeText(userEntry, "[Desktop Entry]\nExec=halvark\n[Desktop Action x]\nHidden=true\n");
  EXPECT_TRUE(item.enabled());
}

TEST_F(LoginItemTest, AnUnwritableAutostartFolderThrowsAndStaysOff) {
  writeText(directory / "config/autostart", "not a folder");
  LoginItem item("halvark");
  EXPECT_THROW(item.setEnabled(true), synckit::PosixError);
  EXPECT_FALSE(item.enabled());
}

TEST(LoginItemExecValue, QuotesReservedCharactersAndEscapesFieldCodes) {
  EXPECT_EQ(LoginItem::execValue("/usr/bin/halvark"), "/usr/bin/halvark");
  EXPECT_EQ(LoginItem::execValue("/opt/100%/halvark"), "/opt/100%%/halvark");
  // Inside quotes $ is escaped with a backslash, which the desktop-entry
  // string escapes once more.
  EXPECT_EQ(LoginItem::execValue("/home/a b/$x"), "\"/home/a b/\\\\$x\"");
}

}  // namespace
}  // namespace halvark
