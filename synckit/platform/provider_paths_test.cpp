#include "synckit/platform/provider_paths.h"

#include <gtest/gtest.h>

#include <fstream>

#include "synckit/base/error.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/domain_registry.h"
#include "synckit/platform/provider_progress.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using testing::thrownBy;

TEST(ProviderPathsTest, MirrorFolderFallsBackFromEnvironmentToDefaultsToHome) {
  TemporaryDirectory temp;
  ScopedEnvironment environment;
  environment.set("XDG_CONFIG_HOME", (temp / "config").string())
      .set("HOME", (temp / "home").string())
      .set("HALVARK_MIRROR", (temp / "explicit").string());
  SharedDefaults defaults = *AppGroup::sharedDefaults();
  defaults.set(ProviderPaths::mirrorFolderKey, (temp / "configured").string());

  EXPECT_EQ(ProviderPaths::mirrorFolder(), temp / "explicit");
  environment.set("HALVARK_MIRROR", "relative/mirror");
  EXPECT_EQ(ProviderPaths::mirrorFolder(), temp / "configured");
  defaults.set(ProviderPaths::mirrorFolderKey, "");
  environment.set("HALVARK_MIRROR", "");
  EXPECT_EQ(ProviderPaths::mirrorFolder(), temp / "home" / "Halvark");
  environment.set("HOME", std::nullopt).set("XDG_CONFIG_HOME", std::nullopt);
  EXPECT_EQ(thrownBy<PosixError>([] { ProviderPaths::mirrorFolder(); }).code(), ENOENT);

  // The provider's files travel with the store's database, and its signal
  // is not the application's.
  const std::filesystem::path container = "/c";
  for (const auto& file :
       {ProviderPaths::indexURL(container), ProviderPaths::domainsURL(container),
        ProviderPaths::progressURL(container), ProviderPaths::instanceLockURL(container)}) {
    EXPECT_EQ(file.parent_path(), AppGroup::databaseURL(container).parent_path());
  }
  EXPECT_NE(ProviderPaths::workingSetSignalName(), SyncSignal::name());
}

TEST(ProviderPathsTest, DomainRegistryAndProgressRoundTripAndRefuseBadFiles) {
  TemporaryDirectory temp;
  const auto domains = temp / "new" / "domains.json";
  EXPECT_TRUE(DomainRegistry::load(domains).empty());
  const std::vector<RegisteredDomain> registered{{"halvark", "Halvark"}, {"b", "Zwei \u00e9"}};
  DomainRegistry::save(domains, registered);
  EXPECT_EQ(DomainRegistry::load(domains), registered);
  for (const char* malformed :
       {"{}", "[{\"identifier\": \"a\"}]", "[{\"identifier\": 1, \"displayName\": \"A\"}]", "[1]",
        "[{\"identifier\": \"a\", \"displayName\": \"A\"}"}) {
    std::ofstream(domains) << malformed;
    EXPECT_EQ(thrownBy<DecodingError>([&] { DomainRegistry::load(domains); }).description(),
              "The file-provider domain list \u201c" + domains.string() +
                  "\u201d does not hold a list of domains.")
        << malformed;
  }

  const auto progressFile = temp / "other" / "progress.json";
  EXPECT_EQ(ProviderProgressFile::read(progressFile), std::nullopt);
  const ProviderProgress progress{12, 5'000'000'000, false, Timestamp::fromMilliseconds(1234567)};
  ProviderProgressFile::write(progressFile, progress);
  EXPECT_EQ(ProviderProgressFile::read(progressFile), progress);
  for (const char* malformed :
       {"[]", "{\"filesRemaining\": 1, \"bytesRemaining\": 2, \"idle\": true}",
        "{\"filesRemaining\": 1.5, \"bytesRemaining\": 2, \"idle\": true, "
        "\"updatedAt\": \"1970-01-01T00:00:00.000Z\"}",
        "{\"filesRemaining\": 1, \"bytesRemaining\": 2, \"idle\": true, \"updatedAt\": \"x\"}"}) {
    std::ofstream(progressFile) << malformed;
    EXPECT_EQ(ProviderProgressFile::read(progressFile), std::nullopt) << malformed;
  }
}

}  // namespace
}  // namespace synckit
