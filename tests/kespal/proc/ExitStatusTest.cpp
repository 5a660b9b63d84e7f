#include "kespal/proc/ExitStatus.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <sstream>

namespace kes::proc {
namespace {

/// How a process ends that does this.
ExitStatus ended(const std::function<void()>& body, int options = 0) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    body();
    ::_exit(0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(pid, &status, options), pid);
  if (WIFSTOPPED(status)) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  return ExitStatus(status);
}

/// It has nowhere to dump its core to.
ExitStatus endedBy(int signal) {
  return ended([signal] {
    const ::rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
  });
}

std::string written(const ExitStatus& status) {
  std::ostringstream stream;
  stream << status;
  return stream.str();
}

TEST(ExitStatusTest, AProcessThatEndsByItselfHasAnExitCode) {
  for (const int code : {0, 1, 3, 125, 255}) {
    const ExitStatus status = ended([code] { ::_exit(code); });
    EXPECT_EQ(status.exitCode(), code);
    EXPECT_EQ(status.isSuccess(), code == 0);
    EXPECT_EQ(status.signal(), std::nullopt);
    EXPECT_FALSE(status.coreDumped());
    EXPECT_EQ(status.text(), "exited " + std::to_string(code));
  }
}

TEST(ExitStatusTest, AProcessThatASignalEndsHasThatAndNoExitCode) {
  const ExitStatus status = endedBy(SIGTERM);
  EXPECT_EQ(status.exitCode(), std::nullopt);
  EXPECT_EQ(status.signal(), SIGTERM);
  EXPECT_FALSE(status.isSuccess());
  EXPECT_FALSE(status.coreDumped());
  EXPECT_EQ(status.text(), "killed by SIGTERM");
}

TEST(ExitStatusTest, ASignalWithoutANameOfItsOwnHasItsNumber) {
  EXPECT_EQ(ExitStatus(SIGWINCH).text(), "killed by signal " + std::to_string(SIGWINCH));
}

TEST(ExitStatusTest, ACoreDumpIsSaid) {
  // Whether this machine dumps any is its own affair: the status is as waitpid() would report it.
  const ExitStatus status(SIGSEGV | WCOREFLAG);
  EXPECT_TRUE(status.coreDumped());
  EXPECT_EQ(status.signal(), SIGSEGV);
  EXPECT_EQ(status.exitCode(), std::nullopt);
  EXPECT_EQ(status.text(), "killed by SIGSEGV, core dumped");
  EXPECT_EQ(endedBy(SIGSEGV).text(), "killed by SIGSEGV");
}

TEST(ExitStatusTest, AProcessThatIsStoppedHasNotEnded) {
  const ExitStatus status = ended([] { ::raise(SIGSTOP); }, WUNTRACED);
  EXPECT_EQ(status.exitCode(), std::nullopt);
  EXPECT_EQ(status.signal(), std::nullopt);
  EXPECT_FALSE(status.isSuccess());
  EXPECT_EQ(status.text(), "not ended");
}

TEST(ExitStatusTest, ItIsWrittenAsItsText) {
  EXPECT_EQ(written(ExitStatus(3 << 8)), "exited 3");
  EXPECT_EQ(written(ExitStatus(SIGKILL)), "killed by SIGKILL");
}

TEST(ExitStatusTest, StatusesAreEqualThatTellTheSame) {
  EXPECT_EQ(ended([] { ::_exit(7); }), ended([] { ::_exit(7); }));
  EXPECT_NE(ended([] { ::_exit(15); }), endedBy(15));
  EXPECT_EQ(ExitStatus(SIGSEGV | WCOREFLAG).waitStatus(), SIGSEGV | WCOREFLAG);
}

}  // namespace
}  // namespace kes::proc
