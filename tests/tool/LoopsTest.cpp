#include "Loops.h"

#include <signal.h>
#include <unistd.h>

#include <functional>
#include <sstream>

#include "Console.h"
#include "State.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/PcapFile.h"
#include "support/TempDir.h"
#include "tool/FakeDriver.h"

// What the loops ask of the system, written down among the driver's calls.
namespace {

using kes::test::Call;
using kes::test::fakeDriver;
using kes::test::Instead;
using kes::test::real;

int refusedSignal = 0;
int signalInSleep = 0;

extern "C" void __wrap_KesOsSleep(unsigned int ms) {
  fakeDriver.journal.push_back("sleep " + std::to_string(ms));
  if (signalInSleep != 0) ::raise(signalInSleep);
}

const Instead<Call::signal> signalHere([](int number, sighandler_t handler) -> sighandler_t {
  const char* what = handler == signalHandler ? " signalHandler" : " other";
  fakeDriver.journal.push_back("signal " + std::to_string(number) + what);
  return number == refusedSignal ? SIG_ERR : real<Call::signal>(number, handler);
});

using kes::test::inChild;
using kes::test::PcapFile;
using kes::test::readFile;
using kes::test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// A loop in a child, its keyboard being a pipe: what it printed, and what it did.
struct Outcome {
  std::string out, err;
  std::vector<std::string> journal;
};

Outcome run(const std::string& keys, const std::function<void()>& loop) {
  const auto child = inChild([&] {
    int ends[2];
    if (::pipe(ends) != 0) return 1;
    if (::write(ends[1], keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) return 1;
    ::dup2(ends[0], STDIN_FILENO);
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    loop();
    std::printf("--- journal\n");
    for (const std::string& line : fakeDriver.journal) std::printf("%s\n", line.c_str());
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  const std::size_t end = child.out.find("--- journal\n");
  Outcome result{child.out.substr(0, end), child.err, {}};
  std::istringstream lines(child.out.substr(std::min(child.out.size(), end + 12)));
  for (std::string line; std::getline(lines, line);) result.journal.push_back(line);
  return result;
}

void startAfresh() {
  fakeDriver = {};
  refusedSignal = signalInSleep = 0;
  _exitflg = 0;
}

Outcome trace(const std::string& keys) {
  return run(keys, [] { ShowTraceLoop(77); });
}

class LoopsTest : public testing::Test {
 protected:
  void SetUp() override { startAfresh(); }
};

using TraceLoopTest = LoopsTest;

const auto traceCall = StartsWith("call 77 selector 3 scalars none 0 structure 16: 10000001");
const auto packetCall = StartsWith("call 77 selector 2 scalars none 0 structure 0:");

TEST_F(TraceLoopTest, AsksOnceASecondBetweenLooksAtTheKeyboard) {
  EXPECT_THAT(trace("qxQ").journal, ElementsAre("signal 15 signalHandler", "signal 2 signalHandler",
                                                traceCall, "sleep 1000", traceCall, "sleep 1000"));
}

TEST_F(TraceLoopTest, ASignalThatCannotBeHandledIsSaidAndTracingGoesOn) {
  refusedSignal = SIGINT;
  const Outcome result = trace("xQ");
  EXPECT_EQ(result.out, "quit tracing with 'Q'\n");
  EXPECT_EQ(result.err, "signal handler (SIGINT) failed to install\n");
  EXPECT_THAT(result.journal, testing::Contains(traceCall));
}

TEST_F(TraceLoopTest, OnlyTheSecondHandlerIsLookedAfter) {
  refusedSignal = SIGTERM;
  EXPECT_EQ(trace("xQ").err, "");
}

TEST_F(TraceLoopTest, WithTheExitFlagSetNothingIsAsked) {
  _exitflg = 1;
  const Outcome result = trace("xQ");
  EXPECT_EQ(result.out, "quit tracing with 'Q'\n");
  EXPECT_THAT(result.journal, ElementsAre("signal 15 signalHandler", "signal 2 signalHandler"));
}

TEST_F(TraceLoopTest, ASignalInTheSleepEndsItWithTheTurn) {
  fakeDriver.answers = {{.bytes = "  last words"}};
  for (const int number : {SIGTERM, SIGINT}) {
    signalInSleep = number;
    const Outcome result = trace("");
    EXPECT_EQ(result.out, "quit tracing with 'Q'\nlast words");
    EXPECT_THAT(result.journal,
                ElementsAre("signal 15 signalHandler", "signal 2 signalHandler", traceCall, "sleep 1000"));
  }
}

class DumpLoopTest : public LoopsTest {
 protected:
  Outcome dump(const std::string& keys) {
    kes::time::ClockBase::init();
    return run(keys, [this] { SaveDump(77, file_.c_str()); });
  }

  TempDir dir_;
  const std::string file_ = dir_ / "capture";
};

TEST_F(DumpLoopTest, AsksEveryTenMillisecondsBetweenLooksAtTheKeyboardAndHandlesNoSignal) {
  EXPECT_THAT(dump("qxQ").journal, ElementsAre(packetCall, "sleep 10", packetCall, "sleep 10"));
}

TEST_F(DumpLoopTest, WithTheExitFlagSetNothingIsAsked) {
  _exitflg = 1;
  const Outcome result = dump("xQ");
  EXPECT_EQ(result.out, "quit writing dump file with 'Q'\n");
  EXPECT_THAT(result.journal, IsEmpty());
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(DumpLoopTest, ACountAboveTheCapacityIsNotBelieved) {
  fakeDriver.answers = {{.bytes = "four", .claimed = 5000}};
  const Outcome result = dump("xQ");
  EXPECT_EQ(result.err, "GetPacket ok len =4096\n");
  EXPECT_EQ(PcapFile::parse(readFile(file_)).packets().at(0).substr(0, 4), "four");
}

TEST_F(DumpLoopTest, ACaptureThatCannotBeMadeIsSaidInTheUsersWordsAndNothingIsAsked) {
  const Outcome result = run("xQ", [] { SaveDump(77, "/no/such/%s folder/%d"); });
  EXPECT_EQ(result.out, "failed to open file /no/such/%s folder/%d\n");
  EXPECT_THAT(result.journal, IsEmpty());
}

TEST(KeyboardTest, OnlyAnUpperCaseQIsAQ) {
  const Outcome result = run("qQ\n", [] {
    for (int key = 0; key < 4; ++key) std::printf("%d", keyb_proc() ? 1 : 0);
  });
  EXPECT_EQ(result.out, "0100");
}

TEST(KeyboardTest, TheSignalHandlerSetsTheFlagAndNothingElse) {
  _exitflg = 0;
  signalHandler(SIGTERM);
  EXPECT_EQ(_exitflg, 1);
}

}  // namespace
