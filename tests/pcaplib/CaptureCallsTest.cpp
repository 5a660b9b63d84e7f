#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/TempDir.h"

namespace {

using kes::test::TempDir;

/// The numbers of the system calls that `body` makes in a child, or nothing where tracing is not permitted.
std::vector<std::uint64_t> callsOf(const std::function<void()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(1);
    ::raise(SIGSTOP);
    ::syscall(SYS_getppid);
    body();
    ::syscall(SYS_getppid);
    ::_exit(0);
  }
  std::vector<std::uint64_t> calls;
  int status = 0, markers = 0;
  ::waitpid(child, &status, 0);
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
  while (WIFSTOPPED(status)) {
    ::__ptrace_syscall_info info{};
    // The request answers only at the stops of a call; at others its operation is none.
    ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      if (info.entry.nr == SYS_getppid)
        ++markers;
      else if (markers == 1)
        calls.push_back(info.entry.nr);
    }
    ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    ::waitpid(child, &status, 0);
  }
  return calls;
}

class CaptureCallsTest : public testing::Test {
 protected:
  void SetUp() override {
    kes::time::ClockBase::init();
    if (callsOf([] { ::syscall(SYS_getuid); }).size() != 1)
      GTEST_SKIP() << "tracing a child is not permitted here";
    ASSERT_TRUE(DumpOpen((dir_ / "capture").c_str(), 0));
  }

  TempDir dir_;
};

TEST_F(CaptureCallsTest, APacketIsFourSystemCallsWhateverItsLength) {
  for (std::size_t length : {0U, 3U, 64U, 1500U, 4096U, 100'000U}) {
    const std::vector<unsigned char> packet(length, 'p');
    const auto calls = callsOf([&] { DumpPacket(packet.data(), static_cast<unsigned>(length), 0); });
    ASSERT_EQ(calls.size(), 4U) << length;
    EXPECT_EQ(calls[0], static_cast<std::uint64_t>(SYS_openat));
    EXPECT_TRUE(calls[1] == SYS_newfstatat || calls[1] == SYS_fstat) << calls[1];
    EXPECT_EQ(calls[2], static_cast<std::uint64_t>(SYS_writev));
    EXPECT_EQ(calls[3], static_cast<std::uint64_t>(SYS_close));
  }
}

TEST_F(CaptureCallsTest, TheHeaderOfAnEmptiedFileGoesOutInTheSameWrite) {
  ASSERT_EQ(::truncate((dir_ / "capture").c_str(), 0), 0);
  const unsigned char packet[60] = {};
  EXPECT_EQ(callsOf([&] { DumpPacket(packet, sizeof packet, 0); }).size(), 4U);
  EXPECT_EQ(kes::test::readFile(dir_ / "capture").size(), 24U + 16 + 60);
}

}  // namespace
