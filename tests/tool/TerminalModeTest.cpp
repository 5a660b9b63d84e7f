#include <signal.h>
#include <termios.h>

#include <cstdlib>

#include "Console.h"
#include "State.h"
#include "support/ForkedChild.h"
#include "support/Pty.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

bool operator==(const termios& a, const termios& b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::equal(std::begin(a.c_cc), std::end(a.c_cc), std::begin(b.c_cc));
}

bool isKeyByKey(const termios& attributes) { return (attributes.c_lflag & ICANON) == 0; }

/// The tool with a terminal as its standard input; what it prints is collected through pipes.
class TerminalModeTest : public ToolTest {
 protected:
  Process start(const std::vector<std::string>& arguments, std::vector<std::string> environment = {}) {
    return Process(kestrace(arguments),
                   {.in = pty_.terminal(), .isSessionLeader = true, .environment = std::move(environment)});
  }

  bool isRestored() const { return pty_.attributes() == before_; }

  Pty pty_;
  const termios before_ = pty_.attributes();
};

TEST_F(TerminalModeTest, OnlyCanonicalInputIsSwitchedOff) {
  play("");
  Process tool = start({"-trace"});
  ASSERT_TRUE(tool.waitForOut("quit tracing"));
  termios expected = before_;
  expected.c_lflag &= ~static_cast<tcflag_t>(ICANON);
  EXPECT_TRUE(pty_.attributes() == expected) << "echo and signal keys stay as they were";
  EXPECT_TRUE(isKeyByKey(pty_.attributes()));
  pty_.type("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, QEndsEitherModeWithoutReturnAndIsEchoed) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"-trace"}, {"-dump", dir_ / "capture"}}) {
    play("");
    Process tool = start(arguments);
    ASSERT_TRUE(tool.waitForOut("'Q'\n"));
    pty_.type("qQ");
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_NE(pty_.screen("qQ").find("qQ"), std::string::npos);
    EXPECT_TRUE(isRestored());
  }
}

TEST_F(TerminalModeTest, AKeyTypedAheadIsSeen) {
  play("");
  pty_.type("Q\n");
  Process tool = start({"-trace"});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, IsRestoredAfterTheUsageText) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"-x"}, {"-d"}, {"-trace", "x"}}) {
    Process tool = start(arguments);
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_TRUE(isRestored());
  }
}

TEST_F(TerminalModeTest, IsRestoredWhenThereIsNothingToDo) {
  Process tool = start({"-d", "3", "-p", "2", "-o", "1"});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, IsRestoredWithoutADriver) {
  for (const char* mode : {"-trace", "-dump"}) {
    Process tool = start({mode}, {"KES_IOREGISTRY=" + dir_.path()});
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_TRUE(isRestored());
  }
}

TEST_F(TerminalModeTest, IsRestoredAfterARefusedConnection) {
  play("open return 0xe00002c5 forever\n");
  for (const char* mode : {"-trace", "-dump"}) {
    Process tool = start({mode});
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_TRUE(isRestored());
  }
}

TEST_F(TerminalModeTest, IsRestoredAfterAFailedCaptureFile) {
  play("");
  Process tool = start({"-dump", dir_ / "no/such/folder"});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, IsRestoredAfterASignalInTraceMode) {
  for (int number : {SIGTERM, SIGINT}) {
    play("");
    Process tool = start({"-trace"});
    ASSERT_TRUE(waitForRequests("trace", 1));
    EXPECT_TRUE(isKeyByKey(pty_.attributes()));
    tool.signal(number);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_TRUE(isRestored());
  }
}

TEST_F(TerminalModeTest, ControlCEndsTheTraceModeInGoodOrder) {
  play("");
  Process tool = start({"-trace"});
  ASSERT_TRUE(waitForRequests("trace", 1));
  pty_.type("\x03");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, ControlCKillsTheDumpModeAndLeavesTheTerminalToTheShell) {
  play("");
  Process tool = start({"-dump", dir_ / "capture"});
  ASSERT_TRUE(waitForRequests("packet", 1));
  pty_.type("\x03");
  EXPECT_EQ(tool.wait(), -SIGINT);
  EXPECT_TRUE(isKeyByKey(pty_.attributes()));
}

TEST_F(TerminalModeTest, IsRestoredWhenAnErrorEndsTheTool) {
  play("packet bytes 010203\n");
  Process tool = start({"-dump", dir_ / "capture"},
                       {std::string("LD_PRELOAD=") + FAILING_CLOCK, "ASAN_OPTIONS=verify_asan_link_order=0"});
  EXPECT_EQ(tool.wait(), -SIGABRT) << tool.err();
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, AHungUpTerminalIsNoKeyboard) {
  play("");
  Process tool = start({"-trace"});
  ASSERT_TRUE(waitForRequests("trace", 1));
  pty_.closeTerminal();
  pty_.closeKeyboard();
  EXPECT_EQ(tool.wait(), -SIGHUP);
}

TEST_F(TerminalModeTest, AnExitFromAnywhereRestoresIt) {
  const auto child = inChild([this] {
    ::dup2(pty_.terminal(), 0);
    const TerminalMode keyByKey;
    if (!isKeyByKey(pty_.attributes())) return 1;
    std::exit(3);
  });
  EXPECT_EQ(child.exitCode(), 3);
  EXPECT_TRUE(isRestored());
}

TEST_F(TerminalModeTest, TheSavedAttributesAreThoseOfTheStart) {
  const auto child = inChild([this] {
    ::dup2(pty_.terminal(), 0);
    {
      const TerminalMode keyByKey;
      if (!(orig_termios == before_)) return 1;
    }
    return isRestored() ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

}  // namespace
}  // namespace kes::test
