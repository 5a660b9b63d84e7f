#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "support/DriverProcess.h"
#include "support/FailingProgram.h"
#include "support/PcapFile.h"
#include "support/Pty.h"
#include "support/Sanitizer.h"

// The tool and the stand-in as whole programs, each of their calls of the C library refused in turn.

namespace kes::test {
namespace {

bool isSame(const termios& a, const termios& b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::equal(std::begin(a.c_cc), std::end(a.c_cc), std::begin(b.c_cc));
}

bool isMemory(const Suffering& what) {
  return what.error == ENOMEM || what.isOf(Call::malloc) || what.isOf(Call::calloc) ||
         what.isOf(Call::strdup);
}

class EveryCallTest : public testing::Test {
 protected:
  void SetUp() override { KES_SKIP_UNDER_SANITIZERS("makes calls of its own"); }

  /// What the tool leaves behind, whatever failed.
  std::string judgeTool(FailingProgram& tool, const Suffering& what) {
    // Keys that were typed ahead end it; where it cannot see single keys, a line does; and a signal always.
    bool isKilled = false;
    if (!tool.endsWithin(1000)) {
      pty_->type("\nQ\n");
      if (!tool.endsWithin(500)) {
        isKilled = true;
        tool.signal(SIGTERM);
        if (!tool.endsWithin(20'000)) return "hangs";
      }
    }
    const bool isAborted = tool.code() == -SIGABRT;
    // An error that nobody catches is reported, as far as memory allows.
    if (isAborted && !isMemory(what) && tool.err().empty()) return "aborts without a word";
    if (tool.code() < 0 && !isAborted && !isKilled)
      return "is killed by signal " + std::to_string(-tool.code());
    if (tool.code() > 1) return "ends with code " + std::to_string(tool.code());
    const bool isStuck = what.isOf(Call::tcsetattr) && what.isForGood;
    const bool isTaken = isKilled && tool.code() < 0;  // the shell puts it back
    if (!isStuck && !isTaken && !isSame(pty_->attributes(), before_)) return "leaves the terminal switched";
    return judgeCapture();
  }

  std::string judgeCapture() const {
    if (::access(capture().c_str(), F_OK) != 0) return "";
    const std::string bytes = readFile(capture());
    if (bytes.empty()) return "";
    const PcapFile file = PcapFile::parse(bytes);
    if (file.torn != 0) return "leaves a torn record";
    for (const std::string& packet : file.packets()) {
      if (packet != std::string(packet.size(), packet[0])) return "leaves a packet that nobody sent";
    }
    return "";
  }

  std::string capture() const { return *dir_ / "capture"; }

  std::unique_ptr<FailingProgram> startTool(const Suffering& what,
                                            const std::vector<std::string>& arguments) {
    dir_ = std::make_unique<TempDir>(inMemory());
    pty_ = std::make_unique<Pty>();
    before_ = pty_->attributes();
    pty_->type("aaaQ");
    std::vector<std::string> command = arguments;
    command.insert(command.begin(), KESTRACE);
    for (std::string& word : command) {
      if (word == "CAPTURE") word = capture();
    }
    return std::make_unique<FailingProgram>(command, what, pty_->terminal());
  }

  void tryTool(const std::vector<std::string>& arguments) {
    const TempDir scripts;
    const DriverProcess driver({"--script", writeScript(scripts, R"(packet bytes 414141414141 forever
trace text "some text\n" forever
)")});
    sufferEverything([this](FailingProgram& tool, const Suffering& what) { return judgeTool(tool, what); },
                     [&](const Suffering& what) { return startTool(what, arguments); });
  }

 private:
  std::unique_ptr<TempDir> dir_;
  std::unique_ptr<Pty> pty_;
  termios before_{};
};

TEST_F(EveryCallTest, TheDumpModeLeavesTheTerminalAndAFileInGoodOrder) { tryTool({"-dump", "CAPTURE"}); }

TEST_F(EveryCallTest, TheTraceModeLeavesTheTerminalInGoodOrder) { tryTool({"-trace", "-d", "1"}); }

TEST_F(EveryCallTest, TheUsageTextLeavesTheTerminalInGoodOrder) { tryTool({}); }

TEST_F(EveryCallTest, ATerminalThatCannotBeAskedForItsSettingsKeepsThem) {
  const Suffering what{Call::tcgetattr, 1, EIO, false, false};
  const auto tool = startTool(what, {});
  ASSERT_TRUE(tool->endsWithin(20'000));
  EXPECT_TRUE(tool->wasStruck());
  EXPECT_EQ(judgeTool(*tool, what), "");
}

TEST_F(EveryCallTest, ASignalDoesNotKeepTheTerminalFromBeingSwitched) {
  const DriverProcess driver;
  const Suffering what{Call::tcsetattr, 1, EINTR, false, false};
  const auto tool = startTool(what, {"-dump", "CAPTURE"});
  EXPECT_TRUE(tool->endsWithin(20'000)) << "the keys are seen without Return";
  EXPECT_TRUE(tool->wasStruck());
  EXPECT_EQ(judgeTool(*tool, what), "");
}

TEST_F(EveryCallTest, AStandInThatWouldWaitForOneClientServesNone) {
  const TempDir registry;
  FailingProgram driver({KESDRIVER, "--dir", registry.path()}, {Call::fcntl, 1, EAGAIN, false, false});
  ASSERT_TRUE(driver.endsWithin(20'000));
  EXPECT_EQ(driver.code(), 1);
  EXPECT_THAT(driver.err(), testing::HasSubstr("cannot listen at"));
  EXPECT_NE(::access((registry / "kes_vpn_driver_keslbmac.sock").c_str(), F_OK), 0);
}

TEST_F(EveryCallTest, AStandInWithoutMemorySaysSoAndEnds) {
  for (int number = 1;; ++number) {
    const TempDir registry;
    FailingProgram driver({KESDRIVER, "--dir", registry.path()}, {Call::malloc, number, ENOMEM, true, false});
    const std::string socket = registry / "kes_vpn_driver_keslbmac.sock";
    while (!driver.endsWithin(1) && ::access(socket.c_str(), F_OK) != 0) {
    }
    if (!driver.endsWithin(0)) break;  // it got as far as it gets without a client
    ASSERT_EQ(driver.code(), 1) << number << driver.err();
    ASSERT_THAT(driver.err(), testing::StartsWith("kesdriver: ")) << number;
  }
}

/// The stand-in, with a client that takes from it what there is.
TEST_F(EveryCallTest, TheStandInServesOrEndsAndLeavesNoName) {
  const TempDir scripts;
  const std::string trace = scripts / "trace";
  writeFile(trace, "text\n");
  std::unique_ptr<TempDir> registry;
  const auto start = [&](const Suffering& what) {
    registry = std::make_unique<TempDir>(inMemory());
    return std::make_unique<FailingProgram>(
        std::vector<std::string>{KESDRIVER, "--dir", registry->path(), "--trace", trace, "--replay",
                                 std::string(SAMPLES) + "/loopback.pcap", "--loop", "--verbose"},
        what);
  };
  const auto judge = [&](FailingProgram& driver, const Suffering& what) -> std::string {
    const std::string socket = *registry / "kes_vpn_driver_keslbmac.sock";
    const auto isThere = [&socket] { return ::access(socket.c_str(), F_OK) == 0; };
    for (int i = 0; i < 20'000 && !isThere() && !driver.endsWithin(1); ++i) {
    }
    for (const char* mode : {"-dump", "-trace"}) {
      if (driver.endsWithin(0)) break;
      ::setenv("KES_IOREGISTRY", registry->path().c_str(), 1);
      const Pty pty;
      pty.type("aaQ");
      FailingProgram tool({KESTRACE, mode, *registry / "capture"}, {}, pty.terminal());
      if (!tool.endsWithin(500)) tool.signal(SIGTERM);
      if (!tool.endsWithin(10'000)) return "leaves its client hanging";
    }
    driver.signal(SIGTERM);
    if (!driver.endsWithin(20'000)) return "hangs";
    if (driver.code() != 0 && driver.code() != 1) return "ends with " + std::to_string(driver.code());
    const bool isStuck = what.isOf(Call::unlink) || what.isOf(Call::lstat);
    if (!isStuck && isThere()) return "leaves its name behind";
    return "";
  };
  sufferEverything(judge, start);
  ::unsetenv("KES_IOREGISTRY");
}

}  // namespace
}  // namespace kes::test
