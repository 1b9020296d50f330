#include "synckit/engine/content_classifier.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

TEST(ContentClassifierTest, TextOnlyWithoutMarkNulBadUTF8OrTooManyUTF16Units) {
  constexpr std::size_t limit = ContentClassifier::maxTextLength;
  static_assert(limit == 1048576, "the rows below are built around the 1 Mi-unit boundary");
  const std::string emoji = "\xF0\x9F\x98\x80";  // one character, two units
  std::string euros;                             // three bytes, one unit each
  for (std::size_t i = 0; i < limit; ++i) euros += "\xE2\x82\xAC";
  const struct {
    std::string text;
    bool isText;
  } rows[] = {
      {"# plan\n\xC3\xA9t\xC3\xA9", true},
      {"", true},
      {"\xEF\xBB\xBFplain", false},  // a mark at the start, not further in
      {"plain\xEF\xBB\xBF", true},
      {std::string("one\0zero", 8), false},
      {"caf\xC3", false},
      {"\xED\xA0\x80", false},  // an encoded surrogate
      {std::string(limit, 'a'), true},
      {std::string(limit + 1, 'a'), false},
      {std::string(limit - 2, 'a') + emoji, true},
      {std::string(limit - 1, 'a') + emoji, false},
      {euros, true},
  };
  for (const auto& row : rows) {
    const auto expected = row.isText ? ContentClassification::text(row.text)
                                     : ContentClassification::blob(toBytes(row.text));
    EXPECT_EQ(ContentClassifier::classify(toBytes(row.text)), expected) << row.text.size();
  }
}

}  // namespace
}  // namespace synckit
