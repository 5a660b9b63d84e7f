#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "Console.h"
#include "State.h"
#include "support/Eventually.h"
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

/// The tool as a job of a shell that reads its own commands in lines.
class JobControlTest : public TerminalModeTest {
 protected:
  static bool isInLines(const termios& attributes) { return !isKeyByKey(attributes); }

  /// Starts the tool as a person does. The shell has its terminal's echo, so that the screen tells nothing
  /// apart here: the terminal's attributes and the driver's log do.
  void startAsJob(const std::string& arguments) {
    startShell();
    pty_.type(kestrace({})[0] + ' ' + arguments + '\n');
    ASSERT_TRUE(waitForRequests("open", 1));
    ASSERT_TRUE(pty_.becomes(isKeyByKey));
  }

  void startShell() {
    play("");
    shell_.emplace(
        std::vector<std::string>{"bash", "--norc", "--noprofile", "--noediting", "-i"},
        Process::Setup{
            .in = pty_.terminal(), .out = pty_.terminal(), .err = pty_.terminal(), .isSessionLeader = true});
  }

  /// The shell's answer to a command, once it contains `answer`, which the command itself must not.
  bool answers(const std::string& command, const std::string& answer) {
    pty_.type(command + '\n');
    return pty_.screen(answer).find(answer) != std::string::npos;
  }

  /// Whether the shell has given its terminal to a program.
  bool isWaitedFor() {
    return eventually([this] { return ::tcgetpgrp(pty_.keyboard()) != shell_->pid(); });
  }

  void bringBack() {
    pty_.type("fg\n");
    ASSERT_TRUE(pty_.becomes(isKeyByKey));
  }

  void stop() {
    pty_.type("\x1a");
    ASSERT_TRUE(pty_.becomes(isInLines)) << "the shell has not taken its terminal back";
  }

  void endWithQ() {
    pty_.type("Q");
    ASSERT_TRUE(pty_.becomes(isInLines));
    pty_.type("echo left $((40 + 2))/$?\n");
    EXPECT_NE(pty_.screen("left 42/0").find("left 42/0"), std::string::npos);
  }

 private:
  std::optional<Process> shell_;
};

TEST_F(JobControlTest, BroughtBackToTheForegroundKeysAreSeenOneByOneAgain) {
  for (const std::string& mode : {std::string("-trace"), "-dump " + (dir_ / "capture")}) {
    startAsJob(mode);
    for (int times = 0; times < 3; ++times) {
      stop();
      pty_.type("fg\n");
      ASSERT_TRUE(pty_.becomes(isKeyByKey)) << mode;
    }
    endWithQ();
  }
}

TEST_F(JobControlTest, InTheBackgroundItRunsOnAndLeavesTheTerminalAloneUntilItIsBack) {
  startAsJob("-dump " + (dir_ / "capture"));
  stop();
  const std::size_t before = count("packet");
  pty_.type("bg\n");
  ASSERT_TRUE(waitForRequests("packet", before + 20));
  EXPECT_TRUE(isInLines(pty_.attributes()));
  pty_.type("fg\n");
  ASSERT_TRUE(pty_.becomes(isKeyByKey));
  endWithQ();
}

TEST_F(JobControlTest, InTheBackgroundWhatIsTypedForSomebodyElseDoesNotStopIt) {
  startAsJob("-dump " + (dir_ / "capture"));
  stop();
  pty_.type("bg\n");
  // The shell waits for a program that reads nothing, and so the second line stays where the tool could see
  // it.
  pty_.type("sleep 600\n");
  ASSERT_TRUE(isWaitedFor()) << "only then a Ctrl-C is for it";
  pty_.type("for nobody\n");
  ASSERT_TRUE(waitForRequests("packet", count("packet") + 100));
  pty_.type("\x03");
  bringBack();
  endWithQ();
}

TEST_F(JobControlTest, ASignalEndsTheTraceModeInTheBackgroundAndTheTerminalStaysTheShells) {
  for (const char* number : {"TERM", "INT"}) {
    startAsJob("-trace");
    stop();
    const std::size_t before = count("trace");
    pty_.type("bg\n");
    ASSERT_TRUE(waitForRequests("trace", before + 1));
    pty_.type("stty -ixon\n");
    ASSERT_TRUE(pty_.becomes([](const termios& now) { return (now.c_iflag & IXON) == 0; }));
    const std::string kill = std::string("kill -") + number + " %1; wait %1; ";
    EXPECT_TRUE(answers(kill + "echo ended $((40 + 2))/$?", "ended 42/0")) << number;
    EXPECT_EQ(pty_.attributes().c_iflag & IXON, 0U);
    EXPECT_TRUE(isInLines(pty_.attributes()));
    pty_.type("stty ixon\n");
    ASSERT_TRUE(pty_.becomes([](const termios& now) { return (now.c_iflag & IXON) != 0; }));
  }
}

TEST_F(JobControlTest, StartedInTheBackgroundItWaitsForTheForegroundBeforeItSwitches) {
  startShell();
  pty_.type(kestrace({})[0] + " -trace &\n");
  EXPECT_TRUE(answers("until jobs -s | grep -q .; do :; done; echo stopped $((40 + 2))", "stopped 42"));
  EXPECT_TRUE(isInLines(pty_.attributes()));
  EXPECT_EQ(count("open"), 0U);
  bringBack();
  endWithQ();
}

TEST_F(JobControlTest, WhoseShellIgnoresItsStopSwitchesInTheBackgroundAndPutsBackAtItsEnd) {
  startShell();
  pty_.type("trap '' TTOU; " + kestrace({})[0] + " -trace & trap - TTOU\n");
  ASSERT_TRUE(waitForRequests("trace", 1));
  EXPECT_TRUE(pty_.becomes(isKeyByKey));
  EXPECT_TRUE(answers("kill %1; wait %1; echo ended $((40 + 2))/$?", "ended 42/0"));
  EXPECT_TRUE(isInLines(pty_.attributes()));
}

TEST_F(JobControlTest, WhatWasChangedMeanwhileStaysButForTheKeys) {
  startAsJob("-trace");
  stop();
  pty_.type("stty -ixon erase '#'\n");
  ASSERT_TRUE(pty_.becomes([](const termios& now) { return (now.c_iflag & IXON) == 0; }));
  pty_.type("fg\n");
  ASSERT_TRUE(pty_.becomes(isKeyByKey));
  EXPECT_EQ(pty_.attributes().c_cc[VERASE], '#');
  EXPECT_EQ(pty_.attributes().c_iflag & IXON, 0U);
  endWithQ();
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

TEST_F(TerminalModeTest, AResetPutsBackTheSavedAttributesWhoeverSavedThem) {
  const auto child = inChild([this] {
    ::dup2(pty_.terminal(), 0);
    ::tcgetattr(0, &orig_termios);
    termios other = orig_termios;
    other.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    ::tcsetattr(0, TCSANOW, &other);
    if (isRestored()) return 1;
    reset_terminal_mode();
    return isRestored() ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
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
