#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

/// The trace mode, its keyboard being a pipe.
class TraceModeTest : public ToolTest {
 protected:
  Process start(std::vector<std::string> arguments = {"-trace"}, Process::Setup setup = {}) {
    if (setup.in == Process::nothing) setup.in = keyboard_.reader;
    return Process(kestrace(std::move(arguments)), setup);
  }

  void press(const std::string& keys) const { keyboard_.write(keys); }

  TestPipe keyboard_;
};

const std::string opened = std::string(deviceFound) +
                           "connection open, type =1\n"
                           "set debug levels: driver=0, ppp=0, oid=0\n"
                           "quit tracing with 'Q'\n";

TEST_F(TraceModeTest, PrintsItsMessagesAndTheTraceInOrderAndEndsWithQ) {
  play("trace text \"first\\n\"\ntrace text \"second\"\ntrace text \" line\\n\"\n");
  Process tool = start({"-trace", "-d", "3", "-p", "2", "-o", "1"});
  ASSERT_TRUE(tool.waitForOut("second line\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), std::string(deviceFound) +
                            "connection open, type =1\n"
                            "set debug levels: driver=3, ppp=2, oid=1\n"
                            "quit tracing with 'Q'\n"
                            "first\nsecond line\n");
  EXPECT_EQ(tool.err(), "");
}

TEST_F(TraceModeTest, EveryRecordArrivesByteForByte) {
  play("");
  Process tool = start({"-trace", "-d", "258", "-p", "65535", "-c", "3"});
  ASSERT_TRUE(waitForRequests("trace", 1));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const std::string log = driver().output();
  EXPECT_NE(log.find("request open sequence=2 selector=0 scalars=1 structure= scalar-capacity=0 "
                     "structure-capacity=0\n"),
            log.npos);
  EXPECT_NE(log.find("request levels sequence=3 selector=3 scalars= structure=0e0002000a0000010201ffff0300"
                     "000000000000000000000000000000000000 scalar-capacity=0 structure-capacity=0\n"),
            log.npos);
  EXPECT_NE(
      log.find("request trace sequence=4 selector=3 scalars= structure=10000001000000000000000000000000 "
               "scalar-capacity=0 structure-capacity=2047\n"),
      log.npos);
}

TEST_F(TraceModeTest, TheCapacityIsOfferedAnewForEveryCall) {
  play("trace text \"a\"\ntrace text \"b\"\n");
  Process tool = start();
  ASSERT_TRUE(waitForRequests("trace", 3));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const std::string log = driver().output();
  std::size_t offers = 0;
  for (std::size_t at = 0; (at = log.find("structure-capacity=2047\n", at)) != log.npos; ++at) ++offers;
  EXPECT_EQ(offers, count("trace"));
}

TEST_F(TraceModeTest, WinsWhenBothModesAreGiven) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"-trace", "-dump", dir_ / "x"}, {"-dump", dir_ / "x", "-trace"}}) {
    play("");
    press("Q");
    Process tool = start(arguments);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.out(), opened);
    EXPECT_NE(::access((dir_ / "x").c_str(), F_OK), 0) << "a capture was made";
  }
}

TEST_F(TraceModeTest, QBeforeTheFirstTurnLeavesTheDriverAlone) {
  play("");
  press("Q");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened);
  EXPECT_EQ(requests(), (std::vector<std::string>{"service", "open", "levels"}));
}

TEST_F(TraceModeTest, OneKeyIsTakenPerTurnSoThatNoneHidesInABuffer) {
  play("");
  press("abQ");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(count("trace"), 2U);
}

TEST_F(TraceModeTest, ALowerCaseQIsIgnored) {
  play("");
  press("q");
  Process tool = start();
  ASSERT_TRUE(waitForRequests("trace", 2));
  press("q");
  ASSERT_TRUE(waitForRequests("trace", 3));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
}

TEST_F(TraceModeTest, AReplyWithoutTextPrintsNothing) {
  play("trace count 0\ntrace count 1\ntrace count 2\ntrace text \"end\"\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut("end"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "end");
  EXPECT_EQ(tool.err(), "");
}

TEST_F(TraceModeTest, AReplyOfThreeBytesPrintsOneCharacter) {
  play("trace bytes 070041\ntrace bytes 0700420043\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut("AB"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "AB") << "the text ends at its NUL or at the reply's end";
}

TEST_F(TraceModeTest, TextOfAnEarlierLongerReplyDoesNotShineThrough) {
  play("trace text \"long text\"\ntrace bytes 070041\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut("long textA"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "long textA");
}

TEST_F(TraceModeTest, ATextThatFillsTheReplyIsPrintedWhole) {
  const std::string text(2045, 't');
  play("trace text \"" + text + "\"\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut(text));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + text);
}

TEST_F(TraceModeTest, PercentSignsInATextAreText) {
  play("trace text \"100%s %n\\n\"\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut("100%s %n\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
}

TEST_F(TraceModeTest, ATooLongReplyIsAFailedCall) {
  play("trace count 2048\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("GetTrace failed: ret=0xe00002db.\n\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
}

TEST_F(TraceModeTest, WithoutADriverSaysSoAndExitsWithOne) {
  Process tool(kestrace({"-trace"}), {.environment = {"KES_IOREGISTRY=" + dir_.path()}});
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.out(), "");
  EXPECT_EQ(tool.err(), "IOServiceGetMatchingService didn't find a matching driver\n");
}

TEST_F(TraceModeTest, ARefusedUserClientExitsWithOne) {
  play("service return 0xe00002c5\n");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.out(), std::string(deviceFound) + "IOServiceOpen failed ret=0xe00002c5\n");
  EXPECT_EQ(tool.err(), "");
}

TEST_F(TraceModeTest, ARefusedOpenCallExitsWithOne) {
  play("open return 0xe00002c2\n");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.out(), deviceFound);
  EXPECT_EQ(tool.err(), "kKesLbUserClientOpen returned 0xe00002c2.\n\n");
}

TEST_F(TraceModeTest, RefusedLevelsAreSaidAndTracingGoesOn) {
  play("levels return 0xe00002bc\ntrace text \"more\"\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut("more"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), std::string(deviceFound) + "connection open, type =1\nquit tracing with 'Q'\nmore");
  EXPECT_EQ(tool.err(), "GetTrace failed ret=0xe00002bc.\n\n");
}

TEST_F(TraceModeTest, ACallThatFailsIsSaidEachTurnAndTracingGoesOn) {
  play("trace return 0xe00002bc x2\ntrace text \"back\"\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForOut("back"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const std::string failure = "GetTrace failed: ret=0xe00002bc.\n\n";
  EXPECT_EQ(tool.err(), failure + failure);
  EXPECT_EQ(tool.out(), opened + "back");
}

TEST_F(TraceModeTest, AVanishedDriverIsSaidEachTurnAndQStillEnds) {
  play("trace text \"last words\\n\" then-die\n");
  Process tool = start();
  const std::string failure = "GetTrace failed: ret=0x10000003.\n\n";
  ASSERT_TRUE(tool.waitForErr(failure + failure));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "last words\n");
}

TEST_F(TraceModeTest, SigtermAndSigintEndItWithExitCodeZero) {
  for (int number : {SIGTERM, SIGINT}) {
    play("");
    Process tool = start();
    ASSERT_TRUE(waitForRequests("trace", 1));
    tool.signal(number);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.out(), opened);
    EXPECT_EQ(tool.err(), "");
  }
}

TEST_F(TraceModeTest, ASignalDuringACallLetsTheCallFinish) {
  for (int number : {SIGTERM, SIGINT}) {
    play("trace delay 700 text \"late\"\n");
    Process tool = start();
    ASSERT_TRUE(waitForRequests("trace", 1));
    tool.signal(number);
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.out(), opened + "late");
    EXPECT_EQ(tool.err(), "");
    EXPECT_EQ(count("trace"), 1U);
  }
}

TEST_F(TraceModeTest, SignalsAtAHighRateDoNotHoldItUp) {
  play("");
  Process tool = start();
  ASSERT_TRUE(waitForRequests("trace", 1));
  // SIGWINCH has no handler, SIGTERM has: a poll that was interrupted must not wait for a key.
  for (int i = 0; i < 2000; ++i) tool.signal(i % 2 == 0 ? SIGWINCH : SIGTERM);
  EXPECT_EQ(tool.wait(), 0);
}

TEST_F(TraceModeTest, RunsOnWithoutStandardInput) {
  play("");
  Process tool(kestrace({"-trace"}), {.in = Process::closed});
  ASSERT_TRUE(waitForRequests("trace", 2));
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened);
  EXPECT_EQ(tool.err(), "");
}

TEST_F(TraceModeTest, RunsOnAtTheEndOfStandardInput) {
  play("");
  keyboard_.closeWriter();
  Process tool = start();
  ASSERT_TRUE(waitForRequests("trace", 2));
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened);
}

TEST_F(TraceModeTest, AFileIsAKeyboardToo) {
  play("");
  writeFile(dir_ / "keys", "xQ");
  const int keys = ::open((dir_ / "keys").c_str(), O_RDONLY | O_CLOEXEC);
  Process tool = start({"-trace"}, {.in = keys});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(count("trace"), 1U);
  ::close(keys);
}

TEST_F(TraceModeTest, TextReachesAPipeWhileTheToolRuns) {
  play("trace text \"now\"\n");
  Process tool = start();
  EXPECT_TRUE(tool.waitForOut("now")) << "held back in a buffer";
  EXPECT_EQ(::kill(tool.pid(), 0), 0);
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
}

TEST_F(TraceModeTest, BothStreamsKeepTheirOrderInOnePipe) {
  play("trace return 0xe00002bc\ntrace text \"text\\n\"\ntrace return 0xe00002bc\n");
  Process tool = start({"-trace"}, {.in = keyboard_.reader, .isMerged = true});
  ASSERT_TRUE(waitForRequests("trace", 4));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const std::string failure = "GetTrace failed: ret=0xe00002bc.\n\n";
  EXPECT_EQ(tool.out(), opened + failure + "text\n" + failure);
}

TEST_F(TraceModeTest, AReaderThatHasGoneDoesNotEndIt) {
  play("");
  TestPipe output;
  output.closeReader();
  Process tool = start({"-trace"}, {.in = keyboard_.reader, .out = output.writer});
  ASSERT_TRUE(waitForRequests("trace", 2));
  press("Q");
  EXPECT_EQ(tool.wait(), 0) << "SIGPIPE ended it";
  EXPECT_EQ(tool.err(), "");
}

TEST_F(TraceModeTest, AReaderThatTakesOneLineDoesNotEndItEither) {
  play("trace text \"more\\n\" forever\n");
  TestPipe output;
  Process tool = start({"-trace"}, {.in = keyboard_.reader, .out = output.writer});
  output.closeWriter();
  Process head({"head", "-n", "1"}, {.in = output.reader});
  output.closeReader();
  EXPECT_EQ(head.wait(), 0);
  EXPECT_EQ(head.out(), deviceFound);
  ASSERT_TRUE(waitForRequests("trace", count("trace") + 2));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
}

TEST_F(TraceModeTest, AReaderThatStandsStillHoldsItUpAndLosesNothing) {
  play("");
  TestPipe output;
  const int room = ::fcntl(output.writer, F_SETPIPE_SZ, 4096);
  output.write(std::string(static_cast<std::size_t>(room), '.'));
  press("Q");
  Process tool = start({"-trace"}, {.in = keyboard_.reader, .out = output.writer});
  output.closeWriter();
  ASSERT_TRUE(driver().waitForOutput("connected"));
  Process cat({"cat"}, {.in = output.reader});
  output.closeReader();
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(cat.wait(), 0);
  EXPECT_EQ(cat.out(), std::string(static_cast<std::size_t>(room), '.') + opened);
}

}  // namespace
}  // namespace kes::test
