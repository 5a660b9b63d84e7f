#include <signal.h>

#include <regex>

#include "support/Pty.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

using testing::HasSubstr;

constexpr char trace[] = "driver: up\nppp: packet dropped: queue full\noid: set\nsomething\n";

class LogTest : public ToolTest {
 protected:
  LogTest() { writeFile(dir_ / "trace", trace); }

  /// Runs the script with the tool of this build in the path.
  static std::vector<std::string> log(std::vector<std::string> arguments) {
    const std::string program = KESTRACE;
    arguments.insert(arguments.begin(),
                     {"env", "PATH=" + program.substr(0, program.rfind('/')) + ":/usr/bin:/bin", LOG});
    return arguments;
  }

  std::string marked(std::vector<std::string> arguments,
                     const std::vector<std::string>& environment = {}) const {
    arguments.insert(arguments.end(), {"--read", dir_ / "trace"});
    Process script(log(arguments), {.environment = environment});
    EXPECT_EQ(script.wait(), 0) << script.err();
    return std::regex_replace(script.out(), std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}"), "TIME");
  }
};

constexpr char plain[] =
    "TIME driver: up\nTIME ppp: packet dropped: queue full\nTIME oid: set\nTIME something\n";
constexpr char coloured[] =
    "\33[2mTIME\33[0m \33[36mdriver: up\33[0m\n"
    "\33[2mTIME\33[0m \33[1;31mppp: packet dropped: queue full\33[0m\n"
    "\33[2mTIME\33[0m \33[35moid: set\33[0m\n"
    "\33[2mTIME\33[0m something\n";

TEST_F(LogTest, EachLineHasItsTimeAndNoColourInAPipe) { EXPECT_EQ(marked({}), plain); }

TEST_F(LogTest, ColoursAreForcedAndForbiddenByTheUsualSwitches) {
  EXPECT_EQ(marked({"--color", "always"}), coloured);
  EXPECT_EQ(marked({"--color=always"}, {"NO_COLOR=1"}), coloured) << "who says so on the line means it";
  EXPECT_EQ(marked({}, {"CLICOLOR_FORCE=1"}), coloured);
  EXPECT_EQ(marked({}, {"CLICOLOR_FORCE=0"}), plain);
  EXPECT_EQ(marked({}, {"CLICOLOR_FORCE=1", "NO_COLOR=1"}), plain);
  EXPECT_EQ(marked({"--color=never"}, {"CLICOLOR_FORCE=1"}), plain);
}

TEST_F(LogTest, ATerminalGetsColoursUnlessItIsDumb) {
  for (const auto& [environment, isColoured] :
       std::vector<std::pair<std::string, bool>>{{"TERM=xterm", true}, {"TERM=dumb", false}}) {
    Pty pty;
    Process script(log({"--read", dir_ / "trace"}), {.out = pty.terminal(), .environment = {environment}});
    EXPECT_EQ(script.wait(), 0);
    EXPECT_EQ(pty.screen("something").find('\33') != std::string::npos, isColoured) << environment;
  }
}

TEST_F(LogTest, ALastLineWithoutAnEndIsShown) {
  writeFile(dir_ / "trace", "half");
  EXPECT_EQ(marked({}), "TIME half\n");
}

TEST_F(LogTest, TheTraceIsShownAsItComesUntilTheKey) {
  play("trace text \"driver: up\\n\"\ntrace text \"ppp: down\\n\"\n");
  const TestPipe keyboard;
  Process script(log({"-d", "3"}), {.in = keyboard.reader});
  ASSERT_TRUE(script.waitForOut("driver=3, ppp=0, oid=0\n")) << script.err();
  ASSERT_TRUE(script.waitForOut(" driver: up\n"));
  ASSERT_TRUE(script.waitForOut(" ppp: down\n"));
  keyboard.write("Q");
  EXPECT_EQ(script.wait(), 0);
}

TEST_F(LogTest, TheStatusIsTheToolsOwn) {
  Process script(log({}), {.environment = {"KES_IOREGISTRY=" + dir_.path()}});
  EXPECT_EQ(script.wait(), 1);
  EXPECT_THAT(script.err(), HasSubstr("didn't find a matching driver"));
}

TEST_F(LogTest, CtrlCEndsItInGoodOrder) {
  play("trace text \"driver: up\\n\"\n");
  const Pty pty;
  Process script(log({}), {.in = pty.terminal(), .isSessionLeader = true});
  ASSERT_TRUE(script.waitForOut(" driver: up\n"));
  ::kill(-script.pid(), SIGINT);
  EXPECT_EQ(script.wait(), 0);
}

TEST_F(LogTest, ASignalToTheScriptAloneEndsTheToolTooInGoodOrder) {
  for (const int signal : {SIGTERM, SIGHUP, SIGQUIT}) {
    play("trace text \"driver: up\\n\"\n");
    const TestPipe keyboard;
    Process script(log({}), {.in = keyboard.reader});
    ASSERT_TRUE(script.waitForOut(" driver: up\n")) << script.err();
    script.signal(signal);
    EXPECT_EQ(script.wait(), 0) << ::strsignal(
        signal);  // kestrace, too, holds what the wait reads to its end
    EXPECT_TRUE(driver().waitForOutput("closed")) << "by nobody's death";
  }
}

TEST_F(LogTest, WhatIsNotUnderstoodIsSaid) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--color"}, {"--color", "pink"}, {"--read", "a", "b"}}) {
    Process script(log(words));
    EXPECT_EQ(script.wait(), 2);
    EXPECT_THAT(script.err(), HasSubstr("usage: kestrace-log "));
  }
  Process help(log({"--help"}));
  EXPECT_EQ(help.wait(), 0);
  EXPECT_THAT(help.out(), testing::StartsWith("usage: kestrace-log "));
}

}  // namespace
}  // namespace kes::test
