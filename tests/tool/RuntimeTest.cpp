#include <signal.h>
#include <unistd.h>

#include <cstdint>

#include "support/Pty.h"
#include "tool/ToolFixture.h"

// What the tool gets from the runtime object that it holds.

namespace kes::test {
namespace {

class RuntimeTest : public ToolTest {
 protected:
  /// A line of a process's /proc/PID/status, without its name.
  static std::string statusOf(pid_t process, const std::string& name) {
    const std::string status = "\n" + readFile("/proc/" + std::to_string(process) + "/status");
    const std::size_t at = status.find('\n' + name + ":\t") + name.size() + 3;
    return status.substr(at, status.find('\n', at) - at);
  }

  /// The environment of a tool whose clock fails. A sanitizer has to be told that it is not the first
  /// library then.
  static std::vector<std::string> withoutCalendar() {
    return {std::string("LD_PRELOAD=") + FAILING_CLOCK, "ASAN_OPTIONS=verify_asan_link_order=0"};
  }

  static std::uint64_t signalsOf(pid_t process, const std::string& name) {
    return std::stoull(statusOf(process, name), nullptr, 16);
  }

  static std::uint64_t maskOf(std::initializer_list<int> signals) {
    std::uint64_t mask = 0;
    for (int number : signals) mask |= std::uint64_t{1} << (number - 1);
    return mask;
  }

  /// The signals that the tool handles, without those of a sanitizer, which handles the same ones here.
  static std::uint64_t handledBy(const Process& tool) {
    return signalsOf(tool.pid(), "SigCgt") & ~signalsOf(::getpid(), "SigCgt");
  }
};

TEST_F(RuntimeTest, ThreeSignalsAreBlockedAndThereIsNoOtherThread) {
  play("");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"-trace"}, {"-dump", dir_ / "capture"}}) {
    const TestPipe keys;
    Process tool(kestrace(arguments), {.in = keys.reader});
    ASSERT_TRUE(tool.waitForOut("'Q'\n"));
    EXPECT_EQ(signalsOf(tool.pid(), "SigBlk"), maskOf({SIGPIPE, SIGUSR1, SIGUSR2}));
    EXPECT_EQ(statusOf(tool.pid(), "Threads"), "1");
    keys.write("Q");
    EXPECT_EQ(tool.wait(), 0);
  }
}

TEST_F(RuntimeTest, OnlyTheTraceModeHandlesTheSignalsThatEndIt) {
  play("");
  const TestPipe keys;
  Process trace(kestrace({"-trace"}), {.in = keys.reader});
  ASSERT_TRUE(trace.waitForOut("'Q'\n"));
  EXPECT_EQ(handledBy(trace), maskOf({SIGINT, SIGTERM}));
  keys.write("Q");
  EXPECT_EQ(trace.wait(), 0);
  Process dump(kestrace({"-dump", dir_ / "capture"}), {.in = keys.reader});
  ASSERT_TRUE(dump.waitForOut("'Q'\n"));
  EXPECT_EQ(handledBy(dump), maskOf({}));
  keys.write("Q");
  EXPECT_EQ(dump.wait(), 0);
}

TEST_F(RuntimeTest, AnErrorThatNobodyCatchesIsReportedAsTheLastWords) {
  play("packet bytes 010203\n");
  Process tool(kestrace({"-dump", dir_ / "capture"}), {.environment = withoutCalendar()});
  EXPECT_EQ(tool.wait(), -SIGABRT);
  const std::size_t report =
      tool.err().find(">>> unhandled iOS exception occured <<<\nkes::Exception:\n\n#1)\n\t");
  ASSERT_NE(report, std::string::npos) << tool.err();
  EXPECT_NE(tool.err().find("src/os/posix/time/Clock:60 (update)", report), std::string::npos);
  EXPECT_TRUE(tool.err().ends_with("\nTerminating program\n\n")) << tool.err();
}

TEST_F(RuntimeTest, TheVariableLeavesTheLastWordsToTheStandardLibrary) {
  play("packet bytes 010203\n");
  std::vector<std::string> environment = withoutCalendar();
  environment.emplace_back("KESPAL_NO_TERMINATE_HANDLER=");
  Process tool(kestrace({"-dump", dir_ / "capture"}), {.environment = environment});
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
