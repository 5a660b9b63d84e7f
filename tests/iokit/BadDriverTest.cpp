#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "iokit/UserClient.h"
#include "support/DriverProcess.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

namespace kes::test {
namespace {

using testing::ElementsAre;

/// A driver that plays a script, and a dump connection to it.
class ScriptedDriver {
 public:
  explicit ScriptedDriver(const std::string& script)
      : driver_({"--verbose", "--script", writeScript(directory_, script)}), connect_(openClient(2)) {}

  io_connect_t connect() const { return connect_; }
  CallResult packet(std::size_t capacity = 4096) const { return getPacket(connect_, capacity); }
  DriverProcess& process() { return driver_; }

 private:
  TempDir directory_;
  DriverProcess driver_;
  io_connect_t connect_;
};

void expectOneErrorThenRecovery(const std::string& fault) {
  const ScriptedDriver driver("packet " + fault + " bytes 0102\npacket bytes 0304\n");
  EXPECT_EQ(driver.packet().code, kIOReturnIPCError) << fault;
  const CallResult next = driver.packet();
  EXPECT_EQ(next.code, kIOReturnSuccess) << fault;
  EXPECT_THAT(next.bytes, ElementsAre(3, 4)) << fault;
}

TEST(BadDriverTest, AReplyOfAnotherMagicIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("magic 0"); }
TEST(BadDriverTest, AReplyOfAnotherVersionIsAnErrorOfThatCallOnly) {
  expectOneErrorThenRecovery("version 2");
}
TEST(BadDriverTest, AReplyOfAnotherKindIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("kind 0x8001"); }
TEST(BadDriverTest, ARequestAsReplyIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("kind 2"); }
TEST(BadDriverTest, AReplyToTheCallBeforeIsAnErrorOfThatCallOnly) {
  expectOneErrorThenRecovery("sequence -1");
}
TEST(BadDriverTest, AReplyToTheNextCallIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("sequence +1"); }
TEST(BadDriverTest, AReplyThatIsTooShortIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("length -1"); }
TEST(BadDriverTest, AReplyThatIsTooLongIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("length +1"); }
TEST(BadDriverTest, AReplyThatEndsInItsHeaderIsAnErrorOfThatCallOnly) {
  expectOneErrorThenRecovery("length -3");
}
TEST(BadDriverTest, AReplyLongerThanAnyBufferIsAnErrorOfThatCallOnly) {
  expectOneErrorThenRecovery("length +100000");
}
TEST(BadDriverTest, AReplyOfOneByteIsAnErrorOfThatCallOnly) { expectOneErrorThenRecovery("raw 00"); }

TEST(BadDriverTest, ALateReplyIsAnErrorOfOneCallAndNeverTheAnswerToAnother) {
  const ScriptedDriver driver("packet twice bytes 01\npacket bytes 02\npacket bytes 03\npacket bytes 04\n");
  EXPECT_THAT(driver.packet().bytes, ElementsAre(1));
  EXPECT_EQ(driver.packet().code, kIOReturnIPCError) << "the second reply to the first call";
  EXPECT_THAT(driver.packet().bytes, ElementsAre(3));
  EXPECT_THAT(driver.packet().bytes, ElementsAre(4));
}

TEST(BadDriverTest, AnEmptyDatagramCountsAsTheEndOfTheDriver) {
  const ScriptedDriver driver("packet length -24\n");
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
}

TEST(BadDriverTest, AReplyAboveTheCapacityIsRefusedAndNothingIsWritten) {
  const ScriptedDriver driver("packet x2 count 5\npacket count 4097\npacket count 60000\npacket scalars 1\n");
  std::array<std::uint8_t, 8> bytes{0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee};
  std::size_t count = 4;
  EXPECT_EQ(IOConnectCallMethod(driver.connect(), 2, nullptr, 0, nullptr, 0, nullptr, nullptr, bytes.data(),
                                &count),
            kIOReturnNoSpace);
  EXPECT_EQ(count, 4u);
  EXPECT_THAT(bytes, testing::Each(0xee));
  EXPECT_EQ(driver.packet(5).bytes.size(), 5u);
  EXPECT_EQ(driver.packet(4096).code, kIOReturnNoSpace);
  EXPECT_EQ(driver.packet(100000).code, kIOReturnNoSpace);
  EXPECT_EQ(driver.packet(4096).code, kIOReturnNoSpace) << "a scalar that nobody asked for";
}

TEST(BadDriverTest, ResultsOfTheDriverComeBackAsTheyAre) {
  const ScriptedDriver driver(
      "packet return kIOReturnNoDevice\npacket return 0xe00002c5 bytes 01\npacket return 0xffffffff\npacket "
      "return 1\n");
  EXPECT_EQ(driver.packet().code, kIOReturnNoDevice);
  EXPECT_EQ(driver.packet().code, kIOReturnExclusiveAccess);
  EXPECT_EQ(driver.packet().code, -1);
  EXPECT_EQ(driver.packet().code, 1);
}

TEST(BadDriverTest, AFailedCallLeavesBufferAndCountsAlone) {
  const ScriptedDriver driver("packet return kIOReturnBusy bytes 010203\n");
  std::array<std::uint8_t, 4> bytes{7, 7, 7, 7};
  std::size_t count = 4;
  EXPECT_EQ(IOConnectCallMethod(driver.connect(), 2, nullptr, 0, nullptr, 0, nullptr, nullptr, bytes.data(),
                                &count),
            kIOReturnBusy);
  EXPECT_EQ(count, 4u);
  EXPECT_THAT(bytes, testing::Each(7));
}

TEST(BadDriverTest, ADriverThatHangsUpIsGoneForThisAndEveryLaterCall) {
  const ScriptedDriver driver("packet hangup\n");
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
  EXPECT_EQ(IOServiceClose(driver.connect()), kIOReturnSuccess);
}

TEST(BadDriverTest, ADriverThatDiesBetweenRequestAndReplyIsGone) {
  ScriptedDriver driver("packet die\n");
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
  EXPECT_NE(driver.process().wait(), 0);
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
  EXPECT_EQ(matchService(), 0u);
}

TEST(BadDriverTest, AReplyIsReadAlsoWhenTheDriverDiedAfterIt) {
  ScriptedDriver driver("packet bytes 0102 then-die\n");
  EXPECT_THAT(driver.packet().bytes, ElementsAre(1, 2));
  driver.process().wait();
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
}

TEST(BadDriverTest, ADriverThatIsKilledGivesNoSigpipe) {
  ScriptedDriver driver("");
  const ChildResult child = inChild([&] {
    ::signal(SIGPIPE, SIG_DFL);
    driver.process().signal(SIGKILL);
    while (driver.packet().code == kIOReturnSuccess) {
    }
    return driver.packet().code == MACH_SEND_INVALID_DEST ? 0 : 1;
  });
  EXPECT_EQ(child.signal(), 0);
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(BadDriverTest, ADriverThatRefusesTheUserClientGivesItsResultAndNoHandle) {
  const TempDir directory;
  const DriverProcess driver({"--script", writeScript(directory, "service return kIOReturnNotPermitted\n")});
  io_connect_t connect = 7;
  EXPECT_EQ(IOServiceOpen(matchService(), mach_task_self(), 0, &connect), kIOReturnNotPermitted);
  EXPECT_EQ(connect, 0u);
}

TEST(BadDriverTest, ADriverThatHangsUpBeforeTheUserClientIsOpenIsGone) {
  const TempDir directory;
  const DriverProcess driver({"--script", writeScript(directory, "connect hangup\n")});
  io_connect_t connect = 7;
  EXPECT_EQ(IOServiceOpen(matchService(), mach_task_self(), 0, &connect), MACH_SEND_INVALID_DEST);
  EXPECT_EQ(connect, 0u);
}

TEST(BadDriverTest, ASlowDriverIsWaitedForThroughAnyNumberOfSignals) {
  const ScriptedDriver driver("packet delay 300 bytes 2a\n");
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART: every signal interrupts the call
  ::sigaction(SIGALRM, &action, nullptr);
  const itimerval every{{0, 1000}, {0, 1000}};
  ::setitimer(ITIMER_REAL, &every, nullptr);
  const auto start = std::chrono::steady_clock::now();
  const CallResult reply = driver.packet();
  const itimerval never{};
  ::setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_THAT(reply.bytes, ElementsAre(42));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST(BadDriverTest, ACallCanBeClosedInAnotherThreadWhileItWaits) {
  ScriptedDriver driver("packet delay 200 bytes 2a\n");
  CallResult reply;
  std::thread caller([&] { reply = driver.packet(); });
  ASSERT_TRUE(driver.process().waitForOutput("request packet"));
  EXPECT_EQ(IOServiceClose(driver.connect()), kIOReturnSuccess);
  caller.join();
  EXPECT_THAT(reply.bytes, ElementsAre(42));
  EXPECT_EQ(driver.packet().code, MACH_SEND_INVALID_DEST);
}

TEST(BadDriverTest, ACancelledCallDoesNotPutTheConnectionOutOfStep) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  ScriptedDriver driver("packet delay 100 bytes 01\npacket x100 bytes 02\n");
  pthread_t caller{};
  const auto call = [](void* argument) -> void* {
    static_cast<ScriptedDriver*>(argument)->packet();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&caller, nullptr, call, &driver), 0);
  ASSERT_TRUE(driver.process().waitForOutput("request packet"));
  ::pthread_cancel(caller);
  void* result = nullptr;
  ::pthread_join(caller, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_THAT(driver.packet().bytes, ElementsAre(2));
}

TEST(BadDriverTest, AHandleThatACancelledThreadClosesIsClosed) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  ScriptedDriver driver("");
  pthread_t closer{};
  const auto close = [](void* argument) -> void* {
    ::pthread_cancel(::pthread_self());
    IOServiceClose(static_cast<ScriptedDriver*>(argument)->connect());
    ::pthread_testcancel();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&closer, nullptr, close, &driver), 0);
  void* result = nullptr;
  ::pthread_join(closer, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_TRUE(driver.process().waitForOutput("closed: by the client"));
}

}  // namespace
}  // namespace kes::test
