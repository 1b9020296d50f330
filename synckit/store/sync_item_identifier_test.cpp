#include "synckit/store/sync_item_identifier.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <unordered_set>

#include "synckit/base/error.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

const std::string kUuidText = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
const Uuid kUuid = *Uuid::parse(kUuidText);

TEST(SyncItemIdentifierTest, StringFormRoundTrips) {
  EXPECT_EQ(SyncItemIdentifier::root().string(), "root");
  EXPECT_EQ(SyncItemIdentifier::brain(kUuid).string(), "brain:" + kUuidText);
  EXPECT_EQ(SyncItemIdentifier::node(kUuid, "n_42").string(), "node:" + kUuidText + ":n_42");

  for (const auto& identifier :
       {SyncItemIdentifier::root(), SyncItemIdentifier::brain(kUuid),
        SyncItemIdentifier::node(kUuid, "n_42"), SyncItemIdentifier::node(kUuid, "a:b"),
        SyncItemIdentifier::node(kUuid, "dir:x/y")}) {
    EXPECT_EQ(SyncItemIdentifier::parse(identifier.string()), identifier) << identifier.string();
  }

  auto lower = SyncItemIdentifier::parse("brain:e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(lower);
  EXPECT_EQ(*lower, SyncItemIdentifier::brain(kUuid));
  EXPECT_EQ(lower->string(), "brain:" + kUuidText);

  EXPECT_EQ(SyncItemIdentifier::parse("node:" + kUuidText + ":a:b"),
            SyncItemIdentifier::node(kUuid, "a:b"));
  EXPECT_EQ(SyncItemIdentifier::node(kUuid, "a:b").brainId(), kUuid);
  EXPECT_EQ(SyncItemIdentifier::root().brainId(), std::nullopt);
}

TEST(SyncItemIdentifierTest, RejectsMalformedText) {
  for (const std::string& text : std::vector<std::string>{
           "", "Root", "root ", "brain:", "brain:not-a-uuid", "brain:" + kUuidText + "0",
           "brain:" + kUuidText + ":n", "node:" + kUuidText + ":", "node:" + kUuidText,
           "node:" + kUuidText + "xn", "node:" + kUuidText.substr(0, 35),
           "node:" + kUuidText.substr(1) + "::n", "Node:" + kUuidText + ":n",
           "file:" + kUuidText}) {
    EXPECT_EQ(SyncItemIdentifier::parse(text), std::nullopt) << text;
  }
}

TEST(SyncItemIdentifierTest, HashesByValue) {
  // How the provider's list of materialized items becomes a set.
  std::unordered_set<SyncItemIdentifier> set;
  for (const std::string& text :
       std::vector<std::string>{"root", "brain:" + kUuidText, "node:" + kUuidText + ":x",
                                "node:" + kUuidText + ":x", "garbage"}) {
    if (auto identifier = SyncItemIdentifier::parse(text)) set.insert(*identifier);
  }
  EXPECT_EQ(set.size(), 3u);
  EXPECT_TRUE(set.contains(SyncItemIdentifier::node(kUuid, "x")));
}

TEST(SyncItemIdentifierTest, CodesAsAJSONString) {
  nlohmann::json json = SyncItemIdentifier::node(kUuid, "n");
  EXPECT_EQ(json, nlohmann::json("node:" + kUuidText + ":n"));
  EXPECT_EQ(json.get<SyncItemIdentifier>(), SyncItemIdentifier::node(kUuid, "n"));
  nlohmann::json list = {"root", "brain:" + kUuidText};
  EXPECT_EQ(list.get<std::vector<SyncItemIdentifier>>(),
            (std::vector{SyncItemIdentifier::root(), SyncItemIdentifier::brain(kUuid)}));

  auto decodingError = [](const nlohmann::json& json) {
    return testing::thrownBy<DecodingError>([&] { json.get<SyncItemIdentifier>(); });
  };
  EXPECT_EQ(decodingError("brain:nope").kind(), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(decodingError("brain:nope").description(), "Invalid item identifier: brain:nope");
  EXPECT_EQ(decodingError(12).kind(), DecodingError::Kind::typeMismatch);
}

}  // namespace
}  // namespace synckit
