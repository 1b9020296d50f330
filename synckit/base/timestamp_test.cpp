#include "synckit/base/timestamp.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

TEST(TimestampTest, WritesThreeFractionalDigitsInUtc) {
  EXPECT_EQ(Timestamp::fromMilliseconds(0).toString(), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(Timestamp::fromMilliseconds(1740821412345).toString(), "2025-03-01T09:30:12.345Z");
  EXPECT_EQ(Timestamp::fromMilliseconds(-1).toString(), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(Timestamp::fromMilliseconds(951782400007).toString(), "2000-02-29T00:00:00.007Z");
}

TEST(TimestampTest, ParsesFractionalSecondsWithZuluOrOffset) {
  auto expected = Timestamp::fromMilliseconds(1740821412345);
  EXPECT_EQ(Timestamp::parse("2025-03-01T09:30:12.345Z"), expected);
  EXPECT_EQ(Timestamp::parse("2025-03-01T10:30:12.345+01:00"), expected);
  EXPECT_EQ(Timestamp::parse("2025-03-01T04:00:12.345-05:30"), expected);
  EXPECT_EQ(Timestamp::parse("2025-03-01T09:30:12.3Z"), Timestamp::fromMilliseconds(1740821412300));
  EXPECT_EQ(Timestamp::parse("2025-03-01T09:30:12.345678Z"), expected);
  for (auto ms : {0LL, 1LL, 999LL, 1740821412345LL, -86400001LL}) {
    auto t = Timestamp::fromMilliseconds(ms);
    EXPECT_EQ(Timestamp::parse(t.toString()), t);
  }
}

TEST(TimestampTest, HoldsOnlyTheYearsItsTextCanWrite) {
  auto first = Timestamp::parse("0000-01-01T00:00:00.000Z");
  auto last = Timestamp::parse("9999-12-31T23:59:59.999Z");
  ASSERT_TRUE(first && last);
  EXPECT_EQ(first->toString(), "0000-01-01T00:00:00.000Z");
  EXPECT_EQ(last->toString(), "9999-12-31T23:59:59.999Z");
  // In range as written, outside once the offset moves them to UTC.
  for (const char* text : {"0000-01-01T00:30:00.000+01:00", "9999-12-31T23:59:59.999-00:01",
                           "9999-12-31T23:59:60.000Z"}) {
    EXPECT_FALSE(Timestamp::parse(text)) << text;
  }
  EXPECT_EQ(Timestamp::fromMilliseconds(INT64_MIN), *first);
  EXPECT_EQ(Timestamp::fromMilliseconds(INT64_MAX), *last);
  EXPECT_EQ(Timestamp::fromMilliseconds(INT64_MIN).toString(), "0000-01-01T00:00:00.000Z");
}

TEST(TimestampTest, RefusesOtherForms) {
  for (const char* text :
       {"2025-03-01T09:30:12Z", "2025-03-01T09:30:12.Z", "2025-03-01 09:30:12.345Z",
        "2025-03-01T09:30:12.345", "2025-03-01T09:30:12.345Zjunk", "2025-02-30T09:30:12.345Z",
        "2025-03-01T24:30:12.345Z", "2025-03-01T09:30:12.345+0100", "", "yesterday"}) {
    EXPECT_FALSE(Timestamp::parse(text)) << text;
  }
}

}  // namespace
}  // namespace synckit
