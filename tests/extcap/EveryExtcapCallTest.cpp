#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "support/DriverProcess.h"
#include "support/FailingProgram.h"
#include "support/PcapFile.h"
#include "support/Sanitizer.h"

// The analyser's program as a whole, each of its calls of the C library refused in turn.

namespace kes::test {
namespace {

class EveryExtcapCallTest : public testing::Test {
 protected:
  void SetUp() override { KES_SKIP_UNDER_SANITIZERS("makes calls of its own"); }

  std::string capture() const { return *dir_ / "capture"; }

  std::unique_ptr<FailingProgram> start(const Suffering& what) {
    dir_ = std::make_unique<TempDir>(inMemory());
    return std::make_unique<FailingProgram>(
        std::vector<std::string>{EXTCAP, "--capture", "--fifo", capture(), "--driver-level", "1", "--totals"},
        what);
  }

  /// What is wrong with how it ended, and with what it left behind.
  std::string judge(FailingProgram& program, const Suffering& what) const {
    const bool isTold = !program.endsWithin(100);
    if (isTold) {
      program.signal(SIGTERM);
      if (!program.endsWithin(20'000)) return "hangs";
    }
    const int code = program.code();
    const bool isMemory = what.error == ENOMEM || what.isOf(Call::malloc) || what.isOf(Call::calloc);
    const bool mayBeKilled = isTold && (code == -SIGTERM || code == -SIGALRM);  // before it heeds the signal
    if (code == -SIGABRT && !isMemory) return "aborts";
    if (code < 0 && code != -SIGABRT && !mayBeKilled) return "is killed by signal " + std::to_string(-code);
    if (code > 1) return "ends with code " + std::to_string(code);
    if (code == 1 && program.err().empty()) return "fails without a word";
    return judgeCapture();
  }

 private:
  std::string judgeCapture() const {
    const std::string bytes = ::access(capture().c_str(), F_OK) == 0 ? readFile(capture()) : "";
    if (bytes.empty()) return "";
    const PcapFile file = PcapFile::parse(bytes);
    if (file.torn != 0) return "leaves a torn record";
    for (const std::string& packet : file.packets()) {
      if (packet != "AAAAAA") return "leaves a packet that nobody sent";
    }
    return "";
  }

  std::unique_ptr<TempDir> dir_;
};

TEST_F(EveryExtcapCallTest, ACaptureEndsInGoodOrderOrWithAWord) {
  const TempDir scripts;
  const DriverProcess driver({"--script", writeScript(scripts, "packet bytes 414141414141 x200\n")});
  sufferEverything([this](FailingProgram& program, const Suffering& what) { return judge(program, what); },
                   [this](const Suffering& what) { return start(what); });
}

}  // namespace
}  // namespace kes::test
