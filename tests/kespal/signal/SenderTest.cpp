#include "kespal/signal/Sender.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "kespal/error/OsError.h"
#include "kespal/signal/Mask.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"

namespace kes::signal {
namespace {

using namespace test;

constexpr const char* source = "src/os/posix/signal/Sender";

pid_t endedChild() {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  ::waitpid(pid, nullptr, 0);
  return pid;
}

TEST(SenderTest, ASignalReachesTheProcess) {
  const ChildResult child = inChild([] {
    Sender::signalProc(SIGTERM, ::getpid());
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGTERM);
}

TEST(SenderTest, AProcessThatIsGoneRaisesAnErrorOfItsOwn) {
  const pid_t gone = endedChild();
  EXPECT_EQ(raisedBy([&] { Sender::signalProc(SIGTERM, gone); }),
            (Raised{"kes::NoSuchProcessError", ESRCH, "", source, "signalProc"}));
  EXPECT_THROW(Sender::signalProc(SIGTERM, gone), NoSuchProcessError);
  EXPECT_THROW(Sender::signalProc(SIGTERM, gone), OsError);
}

TEST(SenderTest, EveryOtherFailureIsRaisedWithErrno) {
  EXPECT_EQ(raisedBy([] { Sender::signalProc(4711, ::getpid()); }), osError(EINVAL, source, 0, "signalProc"));
  const Refuse fault(Call::kill, EPERM, once);
  EXPECT_EQ(raisedBy([] { Sender::signalProc(SIGTERM, ::getpid()); }),
            osError(EPERM, source, 0, "signalProc"));
}

TEST(SenderTest, AProcessOfAnotherUserCannotBeSignalled) {
  const ChildResult child = asNobody([] {
    const Raised raised = raisedBy([] { Sender::signalProc(0, 1); });
    if (raised.type.empty()) return 77;
    return raised.type == "kes::OsError" && raised.errnum == EPERM ? 0 : 1;
  });
  if (child.exitCode() == 77) GTEST_SKIP() << "the first process is this user's own";
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(SenderTest, ASignalReachesTheThread) {
  const Set before = Mask::get();
  Mask::call({SIGUSR2}, SIG_BLOCK);
  Sender::signalThread(SIGUSR2, ::pthread_self());
  int signal = 0;
  ::sigwait(&Set{SIGUSR2}.native(), &signal);
  EXPECT_EQ(signal, SIGUSR2);
  Mask::call(before, SIG_SETMASK);
}

TEST(SenderTest, AThreadThatCannotBeSignalledRaisesTheResultCode) {
  errno = ENOENT;
  EXPECT_EQ(raisedBy([] { Sender::signalThread(4711, ::pthread_self()); }),
            osError(EINVAL, source, 0, "signalThread"));
  const Refuse fault(Call::pthread_kill, ESRCH, once);
  EXPECT_EQ(raisedBy([] { Sender::signalThread(SIGTERM, ::pthread_self()); }),
            osError(ESRCH, source, 0, "signalThread"));
}

}  // namespace
}  // namespace kes::signal
