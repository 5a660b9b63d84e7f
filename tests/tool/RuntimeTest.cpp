#include <signal.h>

#include "support/Pty.h"
#include "tool/ToolFixture.h"

// What the tool gets from the runtime object that it holds.

namespace kes::test {
namespace {

class RuntimeTest : public ToolTest {
 protected:
  /// A line of the tool's /proc/PID/status, without its name.
  static std::string statusOf(const Process& tool, const std::string& name) {
    const std::string status = "\n" + readFile("/proc/" + std::to_string(tool.pid()) + "/status");
    const std::size_t at = status.find('\n' + name + ":\t") + name.size() + 3;
    return status.substr(at, status.find('\n', at) - at);
  }

  static std::string maskOf(std::initializer_list<int> signals) {
    unsigned long long mask = 0;
    for (int number : signals) mask |= 1ULL << (number - 1);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", mask);
    return text;
  }
};

TEST_F(RuntimeTest, ThreeSignalsAreBlockedAndThereIsNoOtherThread) {
  play("");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"-trace"}, {"-dump", dir_ / "capture"}}) {
    const TestPipe keys;
    Process tool(kestrace(arguments), {.in = keys.reader});
    ASSERT_TRUE(tool.waitForOut("'Q'\n"));
    EXPECT_EQ(statusOf(tool, "SigBlk"), maskOf({SIGPIPE, SIGUSR1, SIGUSR2}));
    EXPECT_EQ(statusOf(tool, "Threads"), "1");
    keys.write("Q");
    EXPECT_EQ(tool.wait(), 0);
  }
}

TEST_F(RuntimeTest, OnlyTheTraceModeHandlesTheSignalsThatEndIt) {
  play("");
  const TestPipe keys;
  Process trace(kestrace({"-trace"}), {.in = keys.reader});
  ASSERT_TRUE(trace.waitForOut("'Q'\n"));
  EXPECT_EQ(statusOf(trace, "SigCgt"), maskOf({SIGINT, SIGTERM}));
  keys.write("Q");
  EXPECT_EQ(trace.wait(), 0);
  Process dump(kestrace({"-dump", dir_ / "capture"}), {.in = keys.reader});
  ASSERT_TRUE(dump.waitForOut("'Q'\n"));
  EXPECT_EQ(statusOf(dump, "SigCgt"), maskOf({}));
  keys.write("Q");
  EXPECT_EQ(dump.wait(), 0);
}

TEST_F(RuntimeTest, AnErrorThatNobodyCatchesIsReportedAsTheLastWords) {
  play("packet bytes 010203\n");
  Process tool(kestrace({"-dump", dir_ / "capture"}),
               {.environment = {std::string("LD_PRELOAD=") + FAILING_CLOCK}});
  EXPECT_EQ(tool.wait(), -SIGABRT);
  const std::size_t report =
      tool.err().find(">>> unhandled iOS exception occured <<<\nkes::Exception:\n\n#1)\n\t");
  ASSERT_NE(report, std::string::npos) << tool.err();
  EXPECT_NE(tool.err().find("src/os/posix/time/Clock:60 (update)", report), std::string::npos);
  EXPECT_TRUE(tool.err().ends_with("\nTerminating program\n\n")) << tool.err();
}

TEST_F(RuntimeTest, TheVariableLeavesTheLastWordsToTheStandardLibrary) {
  play("packet bytes 010203\n");
  Process tool(kestrace({"-dump", dir_ / "capture"}),
               {.environment = {std::string("LD_PRELOAD=") + FAILING_CLOCK, "KESPAL_NO_TERMINATE_HANDLER="}});
  EXPECT_EQ(tool.wait(), -SIGABRT);
  EXPECT_EQ(tool.err().find("Terminating program"), std::string::npos) << tool.err();
}

TEST_F(RuntimeTest, OnATerminalWithColourTheEndResetsTheScreen) {
  for (const bool colour : {true, false}) {
    Pty pty;
    Process tool(kestrace({}), {.in = pty.terminal(),
                                .out = pty.terminal(),
                                .isSessionLeader = true,
                                .environment = {colour ? "KES_TEST=" : "KES_NO_COLOR="}});
    EXPECT_EQ(tool.wait(), 1);
    const std::string screen = pty.screen("capture filename");
    EXPECT_EQ(screen.find("\x1b[0m") != std::string::npos, colour) << screen;
  }
}

}  // namespace
}  // namespace kes::test
