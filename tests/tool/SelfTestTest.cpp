#include "SelfTest.h"

#include <sstream>

#include "DriverCalls.h"
#include "ToolFixture.h"
#include "support/ForkedChild.h"

namespace kes::test {
namespace {

/// What the self-test printed, over a packet connection to the driver.
ChildResult selfTest() {
  return inChild([] {
    CONNECTION_INFO info{};
    if (!OpenConnection(info, dumpConnection)) return 1;
    DoTesting(info.connect);
    CloseConnection(info);
    return 0;
  });
}

std::string without(const std::string& text, const std::string& dropped) {
  std::istringstream lines(text);
  std::string rest;
  for (std::string line; std::getline(lines, line);) {
    if (line != dropped) rest += line + '\n';
  }
  return rest;
}

class SelfTestTest : public ToolTest {};

TEST_F(SelfTestTest, AThreadReadsUntilItIsStopped) {
  play("packet bytes 61626364 forever\n");
  const ChildResult result = selfTest();
  EXPECT_EQ(result.exitCode(), 0);
  // The thread and its starter write at the same time.
  EXPECT_THAT(result.err,
              testing::AnyOf("waiting for threads to start\n   thread running\nok threads running\n"
                             "waiting for threads to stop\n   thread terminated\nthreads stopped\n",
                             "   thread running\nwaiting for threads to start\nok threads running\n"
                             "waiting for threads to stop\n   thread terminated\nthreads stopped\n"));
  EXPECT_THAT(result.out, testing::HasSubstr("Read was successful, outSize=4.\n"));
  EXPECT_EQ(without(result.out, "Read was successful, outSize=4."),
            std::string(deviceFound) + "connection open, type =2\n");
}

TEST_F(SelfTestTest, AFailedReadIsReportedAndTheThreadGoesOn) {
  play("packet return 0xe00002bc\n");
  const ChildResult result = selfTest();
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_THAT(result.err, testing::HasSubstr("Read returned 0xe00002bc.\n\n"));
  EXPECT_THAT(result.out, testing::HasSubstr("Read was successful, outSize=0.\n"));
  EXPECT_THAT(result.err, testing::EndsWith("   thread terminated\nthreads stopped\n"));
}

}  // namespace
}  // namespace kes::test
