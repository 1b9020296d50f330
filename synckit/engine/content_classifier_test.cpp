#include "synckit/engine/content_classifier.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

ContentClassification classifyText(std::string_view text) {
  return ContentClassifier::classify(toBytes(text));
}

bool isText(std::string_view text) {
  return classifyText(text).kind() == ContentClassification::Kind::text;
}

TEST(ContentClassifierTest, TextOnlyWithoutMarkNulOrBadUTF8) {
  EXPECT_EQ(classifyText("# plan\n\xC3\xA9t\xC3\xA9"),
            ContentClassification::text("# plan\n\xC3\xA9t\xC3\xA9"));
  EXPECT_EQ(classifyText(""), ContentClassification::text(""));
  // A mark at the start makes plain text a blob; one further in does not.
  EXPECT_EQ(classifyText("\xEF\xBB\xBFplain"),
            ContentClassification::blob(toBytes("\xEF\xBB\xBFplain")));
  EXPECT_TRUE(isText("plain\xEF\xBB\xBF"));
  EXPECT_FALSE(isText(std::string_view("one\0zero", 8)));
  EXPECT_FALSE(isText("caf\xC3"));
  EXPECT_FALSE(isText("\xED\xA0\x80"));  // an encoded surrogate
}

TEST(ContentClassifierTest, LengthLimitCountsUTF16Units) {
  constexpr std::size_t limit = ContentClassifier::maxTextLength;
  EXPECT_EQ(limit, 1048576u);
  EXPECT_TRUE(isText(std::string(limit, 'a')));
  EXPECT_FALSE(isText(std::string(limit + 1, 'a')));

  // A code point past U+FFFF is two units though it is one character.
  const std::string emoji = "\xF0\x9F\x98\x80";
  EXPECT_TRUE(isText(std::string(limit - 2, 'a') + emoji));
  EXPECT_FALSE(isText(std::string(limit - 1, 'a') + emoji));
  // Three-byte forms are one unit each, so their byte count does not matter.
  std::string euros;
  for (std::size_t i = 0; i < limit; ++i) euros += "\xE2\x82\xAC";
  EXPECT_TRUE(isText(euros));
}

TEST(ContentClassifierTest, BlobHashIsLowerCaseSha256) {
  EXPECT_EQ(ContentClassifier::blobHash({}),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(ContentClassifier::blobHash(toBytes("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace synckit
