#include "synckit/engine/shared_metadata_store.h"

#include <gtest/gtest.h>

#include "synckit/base/metadata_store_error.h"
#include "synckit/platform/app_group.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

TEST(SharedMetadataStoreTest, OpensInTheSharedContainerOrFailsWithoutOne) {
  testing::TemporaryDirectory container;
  testing::ScopedEnvironment environment;
  environment.set("HALVARK_CONTAINER", container.path().string());
  auto shared = SharedMetadataStore::open();
  shared->setMeta(MetaKey::deviceId, "D");
  EXPECT_TRUE(std::filesystem::exists(container / "Library" / "Application Support" / "Halvark" /
                                      "sync.sqlite"));

  environment.set("HALVARK_CONTAINER", std::nullopt);
  environment.set("XDG_DATA_HOME", std::nullopt);
  environment.set("HOME", std::nullopt);
  EXPECT_THROW(SharedMetadataStore::open(), MetadataStoreError);
}

}  // namespace
}  // namespace synckit
