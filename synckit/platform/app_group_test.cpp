#include "synckit/platform/app_group.h"

#include <gtest/gtest.h>

#include <fstream>

#include "synckit/base/metadata_store_error.h"
#include "synckit/platform/app_identity.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

const std::string defaultURL(AppIdentity::defaultBaseURL);

TEST(AppGroupTest, ResolveBaseURLAcceptsOnlyHttpURLsWithAHost) {
  EXPECT_EQ(AppGroup::resolveBaseURL("  https://sync.example.test:8443/api/v2\n"),
            "https://sync.example.test:8443/api/v2");
  EXPECT_EQ(AppGroup::resolveBaseURL("\u00A0http://127.0.0.1:8080\r\n\t"), "http://127.0.0.1:8080");
  EXPECT_EQ(AppGroup::resolveBaseURL("HTTP://LOCALHOST:9000/x"), "HTTP://LOCALHOST:9000/x");
  EXPECT_EQ(AppGroup::resolveBaseURL("HtTpS://example.test"), "HtTpS://example.test");

  EXPECT_EQ(AppGroup::resolveBaseURL(std::nullopt), defaultURL);
  for (const char* text : {"", " \n\t ", "ftp://files.example.test/pub", "sync.example.test/api",
                           "https://", "https:///path-only", "https:sync.example.test",
                           "https://exa mple.test", "https://example.test:99999"}) {
    EXPECT_EQ(AppGroup::resolveBaseURL(text), defaultURL) << text;
  }
}

TEST(AppGroupTest, ContainerComesFromTheFirstUsableVariable) {
  ScopedEnvironment env;
  env.set("HALVARK_CONTAINER", "/srv/halvark-container")
      .set("XDG_DATA_HOME", "/data/home")
      .set("HOME", "/home/someone");
  EXPECT_EQ(AppGroup::containerURL(), "/srv/halvark-container");

  env.set("HALVARK_CONTAINER", "");
  EXPECT_EQ(AppGroup::containerURL(), "/data/home/halvark");

  env.set("HALVARK_CONTAINER", std::nullopt).set("XDG_DATA_HOME", "relative/data");
  EXPECT_EQ(AppGroup::containerURL(), "/home/someone/.local/share/halvark");

  env.set("XDG_DATA_HOME", std::nullopt);
  EXPECT_EQ(AppGroup::containerURL(), "/home/someone/.local/share/halvark");

  env.set("HOME", std::nullopt);
  EXPECT_EQ(testing::thrownBy<MetadataStoreError>([] { AppGroup::databaseURL(); }).description(),
            "The shared container for HVK7Q2M4RZ.dev.halvark.Halvark is unavailable.");
}

TEST(AppGroupTest, LocationsSitInsideTheContainerWithoutTouchingDisk) {
  TemporaryDirectory temp;
  ScopedEnvironment env;
  env.set("HALVARK_CONTAINER", temp.path().string());
  auto support = temp / "Library" / "Application Support" / "Halvark";

  EXPECT_EQ(AppGroup::databaseURL(), support / "sync.sqlite");
  EXPECT_EQ(AppGroup::executionLockURL(), support / "sync-execution.lock");
  EXPECT_EQ(AppGroup::spoolDirectory(), support / "Spool");
  EXPECT_EQ(AppGroup::tokenFileURL().parent_path(), support);
  EXPECT_FALSE(std::filesystem::exists(temp / "Library"));
}

TEST(AppGroupTest, SharedDefaultsAreReadAfreshOnEveryAccess) {
  TemporaryDirectory temp;
  ScopedEnvironment env;
  env.set("XDG_CONFIG_HOME", (temp / "config").string()).set("HOME", "/nonexistent-home");
  auto defaults = AppGroup::sharedDefaults();
  ASSERT_TRUE(defaults);
  EXPECT_EQ(defaults->file(), temp / "config" / "halvark" / "defaults.json");
  EXPECT_EQ(defaults->string(AppGroup::baseURLOverrideKey), std::nullopt);
  EXPECT_EQ(AppGroup::baseURL(), defaultURL);

  // Another process (or the user) edits the file: the next read sees it.
  std::filesystem::create_directories(defaults->file().parent_path());
  std::ofstream(defaults->file())
      << R"({"HVBaseURLOverride": " http://127.0.0.1:4100/base\n", "other": 3})";
  EXPECT_EQ(defaults->string("HVBaseURLOverride"), " http://127.0.0.1:4100/base\n");
  EXPECT_EQ(AppGroup::baseURL(), "http://127.0.0.1:4100/base");
  EXPECT_EQ(defaults->string("other"), std::nullopt);  // not a string

  SharedDefaults writer(defaults->file());
  writer.set("HVBaseURLOverride", "ftp://nope.test");
  EXPECT_EQ(AppGroup::baseURL(), defaultURL);
  writer.set("HVBaseURLOverride", std::nullopt);
  EXPECT_EQ(defaults->string("HVBaseURLOverride"), std::nullopt);
  writer.set("deviceLabel", "Caf\u00e9");
  EXPECT_EQ(defaults->string("deviceLabel"), "Caf\u00e9");

  // A hand-damaged file reads as empty and is not overwritten by a write.
  std::ofstream(defaults->file()) << "{not json";
  EXPECT_EQ(defaults->string("deviceLabel"), std::nullopt);
  EXPECT_THROW(writer.set("deviceLabel", "x"), DecodingError);
  std::ifstream in(defaults->file());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "{not json");

  // Without a config home the file sits below HOME; without HOME there is none.
  env.set("XDG_CONFIG_HOME", std::nullopt).set("HOME", "/home/someone");
  EXPECT_EQ(AppGroup::sharedDefaults()->file(), "/home/someone/.config/halvark/defaults.json");
  env.set("HOME", std::nullopt);
  EXPECT_FALSE(AppGroup::sharedDefaults());
  EXPECT_EQ(AppGroup::baseURL(), defaultURL);
}

}  // namespace
}  // namespace synckit
