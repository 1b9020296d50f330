#include "server/options.h"

#include <gtest/gtest.h>

namespace devserver {
namespace {

TEST(Options, DefaultsAndEveryOption) {
  Options defaults = parseOptions({});
  EXPECT_EQ(defaults.port, 0);
  EXPECT_EQ(defaults.basePath, "");
  EXPECT_EQ(defaults.members, (std::map<std::string, std::string>{{"demo", "demo"}}));
  EXPECT_EQ(defaults.tokenLifetimeSeconds, 3600);

  Options all = parseOptions({"--port", "8081", "--base-path=svc/", "--state", "/tmp/s.sqlite",
                              "--token-lifetime", "30", "--member", "ann:pa:ss", "--member",
                              "bob:x", "--seed", "demo", "--quiet"});
  EXPECT_EQ(all.port, 8081);
  EXPECT_EQ(all.basePath, "/svc");
  EXPECT_EQ(all.stateFile, "/tmp/s.sqlite");
  EXPECT_EQ(all.tokenLifetimeSeconds, 30);
  EXPECT_EQ(all.members, (std::map<std::string, std::string>{{"ann", "pa:ss"}, {"bob", "x"}}));
  EXPECT_EQ(all.seed, "demo");
  EXPECT_TRUE(all.quiet);
}

TEST(Options, MistakesAreReportedNotGuessed) {
  auto message = [](std::vector<std::string> args) {
    try {
      parseOptions(args);
    } catch (const OptionsError& error) {
      return std::string(error.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(message({"--port", "70000"}), "--port needs a number from 0 to 65535, not \"70000\"");
  EXPECT_EQ(message({"--port"}), "--port needs a value");
  EXPECT_EQ(message({"--token-lifetime", "0"}).rfind("--token-lifetime needs", 0), 0u);
  EXPECT_EQ(message({"--member", "nopassword"}),
            "--member needs NAME:PASSWORD, not \"nopassword\"");
  EXPECT_EQ(message({"--member", "a:1", "--member", "a:2"}), "member \"a\" is given twice");
  EXPECT_EQ(message({"--seed", "big"}), "--seed knows only \"demo\", not \"big\"");
  EXPECT_EQ(message({"--verbose"}), "unknown option \"--verbose\"");
  EXPECT_EQ(message({"--base-path", "/a b"}).rfind("--base-path", 0), 0u);
}

}  // namespace
}  // namespace devserver
