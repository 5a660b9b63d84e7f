#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/Sanitizer.h"
#include "support/SystemCalls.h"
#include "support/TempDir.h"

namespace {

using kes::test::systemCallsOf;
using kes::test::TempDir;

/// The call that the C library makes of fstat().
long fstatCall() {
  struct stat status;
  return systemCallsOf([&] { ::fstat(0, &status); }).value().at(0);
}

class CaptureCallsTest : public testing::Test {
 protected:
  void SetUp() override {
    KES_SKIP_UNDER_SANITIZERS("makes calls of its own");
    if (!systemCallsOf([] {})) GTEST_SKIP() << "tracing a child is not permitted here";
    kes::time::ClockBase::init();
    ASSERT_TRUE(DumpOpen((dir_ / "capture").c_str(), 0));
  }

  TempDir dir_;
};

TEST_F(CaptureCallsTest, APacketIsSixSystemCallsWhateverItsLength) {
  for (std::size_t length : {0U, 3U, 64U, 1500U, 4096U, 100'000U}) {
    const std::vector<unsigned char> packet(length, 'p');
    const auto calls =
        systemCallsOf([&] { DumpPacket(packet.data(), static_cast<unsigned>(length), 0); }).value();
    EXPECT_EQ(calls, (std::vector<long>{SYS_openat, fstatCall(), SYS_rt_sigprocmask, SYS_writev,
                                        SYS_rt_sigprocmask, SYS_close}))
        << length;
  }
}

TEST_F(CaptureCallsTest, TheHeaderOfAnEmptiedFileGoesOutInTheSameWrite) {
  ASSERT_EQ(::truncate((dir_ / "capture").c_str(), 0), 0);
  const unsigned char packet[60] = {};
  const auto calls = systemCallsOf([&] { DumpPacket(packet, sizeof packet, 0); }).value();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), SYS_writev), 1);
  EXPECT_EQ(calls.size(), 6U);
  EXPECT_EQ(kes::test::readFile(dir_ / "capture").size(), 24U + 16 + 60);
}

}  // namespace
