#include "Options.h"

#include <gmock/gmock.h>

#include <cstdlib>

namespace kes::driver {
namespace {

using testing::ElementsAre;

std::string errorOf(const std::vector<std::string>& words) {
  try {
    parseOptions(words);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(OptionsTest, WithoutWordsEverythingHasItsDefault) {
  ::unsetenv("KES_IOREGISTRY");
  const Options options = parseOptions({});
  EXPECT_EQ(options.directory, "/run/kes");
  EXPECT_TRUE(options.replays.empty());
  EXPECT_FALSE(options.live || options.rate || options.trace || options.script);
  EXPECT_FALSE(options.loop || options.once || options.verbose || options.help);
  EXPECT_EQ(options.oversize, Oversize::Cut);
}

TEST(OptionsTest, TheDirectoryComesFromTheEnvironmentUnlessItIsGiven) {
  ::setenv("KES_IOREGISTRY", "/some/where", 1);
  EXPECT_EQ(parseOptions({}).directory, "/some/where");
  EXPECT_EQ(parseOptions({"--dir", "/else"}).directory, "/else");
  ::setenv("KES_IOREGISTRY", "", 1);
  EXPECT_EQ(parseOptions({}).directory, "/run/kes");
}

TEST(OptionsTest, EveryOptionIsUnderstoodInBothSpellings) {
  const Options options =
      parseOptions({"--replay", "a", "--replay=b", "--rate", "2.5", "--loop", "--trace", "-",
                    "--oversize=refuse", "--once", "--script", "s", "--verbose", "--help"});
  EXPECT_THAT(options.replays, ElementsAre("a", "b"));
  EXPECT_EQ(options.rate, 2.5);
  EXPECT_TRUE(options.loop);
  EXPECT_EQ(options.trace, "-");
  EXPECT_EQ(options.oversize, Oversize::Refuse);
  EXPECT_TRUE(options.once);
  EXPECT_EQ(options.script, "s");
  EXPECT_TRUE(options.verbose);
  EXPECT_TRUE(options.help);
  EXPECT_EQ(parseOptions({"--live", "lo"}).live, "lo");
  EXPECT_TRUE(parseOptions({"--replay", "a", "--pace"}).pace);
  EXPECT_EQ(parseOptions({"--journal", "j"}).journal, "j");
}

TEST(OptionsTest, WhatIsNotUnderstoodIsSaid) {
  EXPECT_EQ(errorOf({"--nonsense"}), "unknown option --nonsense");
  EXPECT_EQ(errorOf({"file"}), "unknown option file");
  EXPECT_EQ(errorOf({"--loop=1"}), "unknown option --loop=1");
  EXPECT_EQ(errorOf({"--dir"}), "--dir needs a value");
  EXPECT_EQ(errorOf({"--oversize", "split"}), "--oversize takes cut or refuse, not split");
  for (const char* rate : {"0", "-1", "x", "1x", "inf", "nan", ""}) {
    EXPECT_EQ(errorOf({"--replay", "a", "--rate", rate}),
              std::string("--rate takes packets per second, not ") + rate);
  }
}

TEST(OptionsTest, OptionsThatMakeNoSenseTogetherAreRefused) {
  EXPECT_EQ(errorOf({"--live", "lo", "--replay", "a"}), "--live and --replay exclude each other");
  EXPECT_EQ(errorOf({"--live", "lo", "--rate", "5"}), "--rate is for --replay: live traffic has its own");
  EXPECT_EQ(errorOf({"--loop"}), "--loop needs --replay");
  EXPECT_EQ(errorOf({"--rate", "5"}), "--rate needs --replay");
  EXPECT_EQ(errorOf({"--pace"}), "--pace needs --replay");
  EXPECT_EQ(errorOf({"--replay", "a", "--pace", "--rate", "5"}), "--rate and --pace exclude each other");
}

}  // namespace
}  // namespace kes::driver
