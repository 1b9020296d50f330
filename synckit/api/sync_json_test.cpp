#include "synckit/api/sync_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "synckit/api/encoding_error.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

const auto decodingErrorOf = [](auto&& decode) { return testing::thrownBy<DecodingError>(decode); };

constexpr const char* deviceJSON =
    R"({"id":"d1","name":"Mac","platform":"linux","createdAt":"2025-03-01T09:30:12.345Z"})";

TEST(SyncJSONTest, DatesAcceptOnlyTheFractionalInternetForm) {
  auto device = SyncJSON::decode<Device>(std::string_view(deviceJSON));
  EXPECT_EQ(device.createdAt, Timestamp::fromMilliseconds(1740821412345));
  EXPECT_EQ(device.lastSeenAt, std::nullopt);
  EXPECT_EQ(SyncJSON::parseDate("2025-03-01T10:30:12.345+01:00"), device.createdAt);

  for (std::string bad :
       {"2025-03-01T09:30:12Z", "yesterday", "2025-03-01", "2025-13-01T09:30:12.345Z"}) {
    auto error = decodingErrorOf([&] {
      SyncJSON::decode<Device>(
          R"({"id":"d","name":"n","platform":"p","createdAt":"2025-03-01T09:30:12.345Z","lastSeenAt":")" +
          bad + "\"}");
    });
    EXPECT_EQ(error.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(error.description(), "Invalid ISO 8601 date: " + bad);
    EXPECT_EQ(SyncJSON::parseDate(bad), std::nullopt);
  }

  EXPECT_EQ(SyncJSON::formatDate(Timestamp::fromMilliseconds(0)), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(SyncJSON::formatDate(Timestamp::fromMilliseconds(1740821412005)),
            "2025-03-01T09:30:12.005Z");
  Device withLastSeen = device;
  withLastSeen.lastSeenAt = Timestamp::fromMilliseconds(1740821412000);
  EXPECT_THAT(SyncJSON::encode(withLastSeen),
              HasSubstr(R"("lastSeenAt":"2025-03-01T09:30:12.000Z")"));
  EXPECT_EQ(SyncJSON::decode<Device>(SyncJSON::encode(withLastSeen)), withLastSeen);
}

TEST(SyncJSONTest, ChangesResponseChoosesItsCaseFromReset) {
  auto reset = SyncJSON::decode<ChangesResponse>(std::string_view(
      R"({"reset":true,"cursor":"c9","entries":"not read","snapshot":[
          {"nodeId":"n1","path":"a/b.png","title":"b","isDirectory":false,"kind":"blob",
           "blobHash":"ab","blobSize":12,"updatedAt":"2025-03-01T09:30:12.345Z"},
          {"nodeId":"n2","path":"a","title":"a","isDirectory":true,"kind":"text",
           "updatedAt":"2025-03-01T09:30:12.345Z"}]})"));
  ASSERT_EQ(reset.kind(), ChangesResponse::Kind::reset);
  EXPECT_EQ(reset.cursor(), "c9");
  const auto& snapshot = reset.as<ChangesResponse::Reset>()->snapshot;
  ASSERT_EQ(snapshot.size(), 2u);
  EXPECT_EQ(snapshot[0], (SnapshotNode{"n1", "a/b.png", "b", false, NodeKind::blob, "ab", 12,
                                       Timestamp::fromMilliseconds(1740821412345)}));
  EXPECT_EQ(snapshot[1].blobHash, std::nullopt);
  EXPECT_EQ(snapshot[1].blobSize, std::nullopt);

  // An empty node id could never be named by an item identifier again.
  auto emptyNodeId = decodingErrorOf([] {
    SyncJSON::decode<ChangesResponse>(std::string_view(R"({"reset":true,"snapshot":[
        {"nodeId":"","path":"a","title":"a","isDirectory":true,"kind":"text",
         "updatedAt":"2025-03-01T09:30:12.345Z"}]})"));
  });
  EXPECT_EQ(emptyNodeId.kind(), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(emptyNodeId.description(), "Empty node id for \"snapshot[0].nodeId\".");

  auto incremental =
      SyncJSON::decode<ChangesResponse>(std::string_view(R"({"reset":false,"entries":[]})"));
  ASSERT_EQ(incremental.kind(), ChangesResponse::Kind::incremental);
  EXPECT_EQ(incremental.cursor(), std::nullopt);
  EXPECT_TRUE(incremental.as<ChangesResponse::Incremental>()->entries.empty());

  auto noEntries = decodingErrorOf(
      [] { SyncJSON::decode<ChangesResponse>(std::string_view(R"({"reset":false})")); });
  EXPECT_EQ(noEntries.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_THAT(noEntries.description(), HasSubstr("\"entries\""));

  auto noReset = decodingErrorOf(
      [] { SyncJSON::decode<ChangesResponse>(std::string_view(R"({"entries":[]})")); });
  EXPECT_EQ(noReset.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_THAT(noReset.description(), HasSubstr("\"reset\""));
}

TEST(SyncJSONTest, FeedEntriesDecodeEveryOpKind) {
  auto page =
      SyncJSON::decode<ChangesResponse>(std::string_view(R"({"reset":false,"cursor":"c2","entries":[
      {"cursor":"c1","at":"2025-03-01T09:30:12.345Z","author":{"kind":"agent","memberId":"m","harness":"h"},
       "ops":[
        {"kind":"create","path":"a.md","title":"A","tags":["x","y"],"isDirectory":false,"nodeKind":"text"},
        {"kind":"update","path":"a.md","bodyChanged":true,"newPath":"ignored"},
        {"kind":"move","path":"a.md","newPath":"b.md","title":"ignored"},
        {"kind":"mkdir","path":"dir","title":"dir"},
        {"kind":"delete","path":"b.md","future":{"nested":[1,2]}}]}]})"));
  const auto& entries = page.as<ChangesResponse::Incremental>()->entries;
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].author, (Author{AuthorKind::agent, "m", "h"}));
  std::vector<Op> expected = {
      Op::Create{"a.md", "A", {"x", "y"}, false, NodeKind::text},
      Op::Update{"a.md", std::nullopt, std::nullopt, true, std::nullopt},
      Op::Move{"a.md", "b.md"},
      Op::Mkdir{"dir", "dir"},
      Op::Delete{"b.md"},
  };
  EXPECT_EQ(entries[0].ops, expected);

  // Every op and the entry survive a round trip through the encoder.
  for (const auto& op : expected) EXPECT_EQ(SyncJSON::decode<Op>(SyncJSON::encode(op)), op);
  EXPECT_EQ(SyncJSON::decode<FeedEntry>(SyncJSON::encode(entries[0])), entries[0]);
  EXPECT_EQ(SyncJSON::encode(expected[1]), R"({"bodyChanged":true,"kind":"update","path":"a.md"})");
}

TEST(SyncJSONTest, OpRequiredMembersAndUnknownKinds) {
  auto noTags = decodingErrorOf([] {
    SyncJSON::decode<Op>(
        std::string_view(R"({"kind":"create","path":"a","title":"a","isDirectory":false})"));
  });
  EXPECT_EQ(noTags.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_THAT(noTags.description(), HasSubstr("\"tags\""));

  auto rename = decodingErrorOf([] {
    SyncJSON::decode<Op>(std::string_view(R"({"kind":"rename","path":"a","newPath":"b"})"));
  });
  EXPECT_EQ(rename.kind(), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(rename.description(), "Unknown op kind \"rename\"");

  auto badNodeKind = decodingErrorOf([] {
    SyncJSON::decode<Op>(std::string_view(
        R"({"kind":"update","path":"a","bodyChanged":false,"nodeKind":"folder"})"));
  });
  EXPECT_EQ(badNodeKind.kind(), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(badNodeKind.description(), "Unknown node kind \"folder\"");

  auto badAuthor = decodingErrorOf(
      [] { SyncJSON::decode<Author>(std::string_view(R"({"kind":"robot","memberId":"m"})")); });
  EXPECT_EQ(badAuthor.description(), "Unknown author kind \"robot\"");

  // The path of a nested failure names where it happened.
  auto nested = decodingErrorOf([] {
    SyncJSON::decode<ChangesResponse>(std::string_view(R"({"reset":false,"entries":[
        {"cursor":"c","at":"2025-03-01T09:30:12.345Z","author":{"kind":"member","memberId":"m"},
         "ops":[{"kind":"delete","path":"a"},{"kind":"mkdir","path":7,"title":"t"}]}]})"));
  });
  EXPECT_EQ(nested.kind(), DecodingError::Kind::typeMismatch);
  EXPECT_EQ(nested.description(),
            "Expected a string for \"entries[0].ops[1].path\" but found a number.");
}

TEST(SyncJSONTest, RecordsHandleOptionalsNullsTypesAndIntegers) {
  auto brain = SyncJSON::decode<Brain>(std::string_view(
      R"({"id":"B","teamId":"t","name":"Notes","slug":"notes","extra":true,"headCursor":null})"));
  EXPECT_EQ(brain, (Brain{"B", "t", "Notes", "notes", std::nullopt}));
  EXPECT_EQ(SyncJSON::encode(brain), R"({"id":"B","name":"Notes","slug":"notes","teamId":"t"})");

  auto nullName = decodingErrorOf([] {
    SyncJSON::decode<Brain>(std::string_view(R"({"id":"B","teamId":"t","name":null,"slug":"s"})"));
  });
  EXPECT_EQ(nullName.kind(), DecodingError::Kind::valueNotFound);

  auto notObject = decodingErrorOf([] { SyncJSON::decode<Brain>(std::string_view("[1]")); });
  EXPECT_EQ(notObject.kind(), DecodingError::Kind::typeMismatch);
  EXPECT_EQ(notObject.description(), "Expected an object at the top level but found an array.");

  auto notJSON = decodingErrorOf([] { SyncJSON::decode<Brain>(std::string_view("{\"id\":")); });
  EXPECT_EQ(notJSON.kind(), DecodingError::Kind::dataCorrupted);
  // A number no double can hold fails as bad data even in a member nobody reads.
  auto hugeNumber = decodingErrorOf([] {
    SyncJSON::decode<Brain>(
        std::string_view(R"({"id":"B","teamId":"t","name":"n","slug":"s","x":[-1e310]})"));
  });
  EXPECT_EQ(hugeNumber.kind(), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(hugeNumber.description(), "The data is not valid JSON (a number is out of range).");

  EXPECT_EQ(
      SyncJSON::decode<BlobReceipt>(std::string_view(R"({"hash":"h","size":104857600})")).size,
      104857600);
  EXPECT_EQ(SyncJSON::decode<BlobReceipt>(std::string_view(R"({"hash":"h","size":12.0})")).size,
            12);
  for (const char* size : {"1.5", "9223372036854775808", "1e300"}) {
    auto error = decodingErrorOf(
        [&] { SyncJSON::decode<BlobReceipt>(std::string(R"({"hash":"h","size":)") + size + "}"); });
    EXPECT_EQ(error.kind(), DecodingError::Kind::dataCorrupted) << size;
  }
  auto stringSize = decodingErrorOf(
      [] { SyncJSON::decode<BlobReceipt>(std::string_view(R"({"hash":"h","size":"12"})")); });
  EXPECT_EQ(stringSize.kind(), DecodingError::Kind::typeMismatch);

  EXPECT_EQ(SyncJSON::decode<WriteResult>(
                std::string_view(R"({"node":{"nodeId":"n","path":"p"},"cursor":"c"})")),
            (WriteResult{{"n", "p"}, "c"}));
  EXPECT_EQ(decodingErrorOf([] {
              SyncJSON::decode<WriteResult>(
                  std::string_view(R"({"node":{"nodeId":"","path":"p"},"cursor":"c"})"));
            }).kind(),
            DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(SyncJSON::decode<DeleteResult>(std::string_view(R"({"deleted":false})")),
            (DeleteResult{false, {}}));
  EXPECT_EQ(SyncJSON::decode<SyncAPIError::Envelope>(
                std::string_view(R"({"error":{"code":"CONFLICT","message":"taken"}})")),
            (SyncAPIError::Envelope{{"CONFLICT", "taken"}}));
  auto noMessage = decodingErrorOf([] {
    SyncJSON::decode<SyncAPIError::Envelope>(std::string_view(R"({"error":{"code":"X"}})"));
  });
  EXPECT_EQ(noMessage.description(), "Missing required key \"message\" in \"error\".");
}

TEST(SyncJSONTest, RequestBodiesAreCompactWithSortedKeys) {
  EXPECT_EQ(SyncJSON::encode(PutTextBody{"d", "notes/a.md", "A", "hello"}),
            R"({"body":"hello","deviceId":"d","path":"notes/a.md","title":"A"})");
  EXPECT_EQ(SyncJSON::encode(PutTextBody{"d", "a.md", std::nullopt, ""}),
            R"({"body":"","deviceId":"d","path":"a.md"})");
  EXPECT_EQ(SyncJSON::encode(PutBlobBody{"d", "x.png", std::nullopt, "ff", 3}),
            R"({"blobHash":"ff","blobSize":3,"deviceId":"d","path":"x.png"})");
  // Non-ASCII text is written as UTF-8, not escaped; invalid UTF-8 is refused.
  EXPECT_EQ(SyncJSON::encode(DeleteBody{"d", "caf\xC3\xA9"}),
            "{\"deviceId\":\"d\",\"path\":\"caf\xC3\xA9\"}");
  EXPECT_THROW(SyncJSON::encode(PutTextBody{"d", "a", std::nullopt, "bad \xFF byte"}),
               EncodingError);
}

}  // namespace
}  // namespace synckit
