#include "synckit/base/uuid.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <unordered_set>

namespace synckit {
namespace {

TEST(UuidTest, PrintsUpperCaseAndParsesEitherCase) {
  auto parsed = Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->toString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(parsed->toLowerString(), "e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  EXPECT_EQ(Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"), parsed);
  EXPECT_EQ(Uuid::parse(parsed->toString()), parsed);
  const Uuid::Text text = parsed->toText();
  EXPECT_EQ(std::string(text.data(), text.size()), parsed->toString());
}

TEST(UuidTest, RefusesAnythingButTheHyphenatedForm) {
  for (const char* text :
       {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF", "E621E1F8-C36C-495A-93FC_0C247A3E6E5F",
        "G621E1F8-C36C-495A-93FC-0C247A3E6E5F", " E621E1F8-C36C-495A-93FC-0C247A3E6E5"}) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
}

TEST(UuidTest, RandomValuesAreVersion4AndDistinct) {
  std::unordered_set<Uuid> seen;
  for (int i = 0; i < 1000; ++i) {
    Uuid uuid = Uuid::random();
    EXPECT_EQ(uuid.bytes()[6] >> 4, 4);
    EXPECT_EQ(uuid.bytes()[8] & 0xC0, 0x80);
    EXPECT_TRUE(seen.insert(uuid).second);
  }

  // A forked child must not continue its parent's sequence.
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Uuid::Storage bytes = Uuid::random().bytes();
    _exit(write(pipeEnds[1], bytes.data(), bytes.size()) == 16 ? 0 : 1);
  }
  Uuid parentNext = Uuid::random();
  Uuid::Storage childNext{};
  EXPECT_EQ(read(pipeEnds[0], childNext.data(), childNext.size()), 16);
  int status = 0;
  waitpid(child, &status, 0);
  close(pipeEnds[0]);
  close(pipeEnds[1]);
  EXPECT_NE(Uuid(childNext), parentNext);
}

}  // namespace
}  // namespace synckit
