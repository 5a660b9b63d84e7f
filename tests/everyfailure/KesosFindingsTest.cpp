#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "kesos/Ipc.h"
#include "kesos/kesos.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Pty.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

// What the scenarios of the flat layer have brought to light, each by itself.

namespace kes::test {
namespace {

class FlatFindingsTest : public IpcTest {};

/// Does something in a thread that is cancelled just before it makes a call.
void cancelledBefore(Call call, std::function<void()> body) {
  const Interlude cancelling(Interlude::Before, call, [] { ::pthread_cancel(::pthread_self()); });
  pthread_t thread{};
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, nullptr, run, &body), 0);
  ASSERT_EQ(::pthread_join(thread, nullptr), 0);
}

TEST_F(FlatFindingsTest, ASignalDoesNotKeepATerminalFromBeingPutBack) {
  const ChildResult result = inChild([] {
    const Pty pty;
    ::dup2(pty.terminal(), STDIN_FILENO);
    const tcflag_t before = pty.attributes().c_lflag;
    for (const int interrupted : {1, 2}) {
      const Refuse refused(Call::tcsetattr, EINTR, nth(interrupted));
      pty.type("k");
      if (KesOsGetChNoWait(0) == -1) return interrupted;
      if (pty.attributes().c_lflag != before) return 10 + interrupted;
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(FlatFindingsTest, ASegmentWhoseStateCannotBeAskedForIsDetachedAllTheSame) {
  const auto key = static_cast<key_t>(freshKey());
  KesOsMmf first, second;
  ASSERT_EQ(KesOsMmfCreate(&first, 100, nullptr, key), 1);
  ASSERT_EQ(KesOsMmfOpen(&second, 0, key), 1);
  {
    const Refuse refused(Call::shmctl, EACCES);
    EXPECT_EQ(KesOsMmfClose(&second), 1);
  }
  shmid_ds state{};
  ASSERT_EQ(::shmctl(first.shmid, IPC_STAT, &state), 0);
  EXPECT_EQ(state.shm_nattch, 1U);
  EXPECT_EQ(KesOsMmfClose(&second), 1) << "it is closed already";
  EXPECT_EQ(KesOsMmfClose(&first), 1);
}

TEST_F(FlatFindingsTest, AFileThatIsNotMappedBecauseOfACancellationIsClosed) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const TempDir dir;
  const std::string file = dir / "map";
  const auto before = openDescriptors();
  cancelledBefore(Call::write, [&] {
    KesOsMmf mapping;
    KesOsMmfCreate(&mapping, 100, file.c_str(), 0);
    ADD_FAILURE() << "it was not cancelled";
  });
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FlatFindingsTest, AMappingIsClosedWholeByAThreadThatIsCancelledMeanwhile) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const TempDir dir;
  KesOsMmf mapping;
  ASSERT_EQ(KesOsMmfCreate(&mapping, 100, (dir / "map").c_str(), 0), 1);
  int result = 7;
  cancelledBefore(Call::close, [&] { result = KesOsMmfClose(&mapping); });
  EXPECT_EQ(result, 1);
  EXPECT_EQ(mapping.fd, -1);
  EXPECT_EQ(mapping.address, nullptr);
}

TEST_F(FlatFindingsTest, AThreadThatIsCancelledMeanwhileReapsTheChildBetweenItAndNobodysChild) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  cancelledBefore(Call::waitpid, [] { KesOsCreateProcessAsyn("true", 0, nullptr); });
  EXPECT_EQ(::waitpid(-1, nullptr, 0), -1);
  EXPECT_EQ(errno, ECHILD);
}

/// Counts at exit what descriptors there are.
struct ExitHandler {
  ~ExitHandler() {
    *found = 0;
    for (int fd = 0; fd < 1024; ++fd) *found += ::fcntl(fd, F_GETFD) != -1 ? 1 : 0;
  }
  int* found;
};

/// What a child that cannot become its program has left open while it exits.
int leftOpenByAFailedChild() {
  const Shared<int> shared;
  *shared = -1;
  const ChildResult result = inChild([&shared] {
    static const ExitHandler handler{&*shared};
    KesOsProcess* process = nullptr;
    if (::dup2(1, 500) != 500) return 1;
    const bool started = KesOsCreateProcessAsyn("kes-no-such-program", 0, &process) == 1;
    const bool ended = started && KesOsProcessWait(process, nullptr) == 1;
    ::_exit(ended ? 0 : 2);
  });
  EXPECT_EQ(result.exitCode(), 0);
  return *shared;
}

TEST_F(FlatFindingsTest, AFailedChildClosesItsDescriptorsAlsoWhenTheirListBreaksOff) {
  KES_SKIP_UNDER_SANITIZERS("looks for leaks at exit, and for that needs descriptors and files");
  const Refuse refused(Call::readdir, EIO, nth(2));
  EXPECT_EQ(leftOpenByAFailedChild(), 0);
}

TEST_F(FlatFindingsTest, AFailedChildClosesItsDescriptorsAlsoWhenNobodySaysHowManyThereCanBe) {
  KES_SKIP_UNDER_SANITIZERS("looks for leaks at exit, and for that needs descriptors and files");
  const Refuse unlisted(Call::opendir, EMFILE), unlimited(Call::sysconf, EINVAL);
  EXPECT_EQ(leftOpenByAFailedChild(), 0);
}

TEST_F(FlatFindingsTest, AWriteThatMovesNothingEndsACopyAndAMapping) {
  const TempDir dir;
  const std::string from = dir / "from", to = dir / "to", file = dir / "map";
  writeFile(from, "text");
  ::alarm(60);  // ends a process that hangs
  const Refuse idle(Call::write, 0);
  EXPECT_EQ(KesOsCopyFile(from.c_str(), to.c_str(), 0), 0);
  EXPECT_EQ(errno, ENOSPC);
  KesOsMmf mapping;
  EXPECT_EQ(KesOsMmfCreate(&mapping, 100, file.c_str(), 0), 0);
  EXPECT_EQ(mapping.error, ENOSPC);
  ::alarm(0);
}

TEST_F(FlatFindingsTest, WithoutMemoryForAHandleErrnoSaysSo) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = nullptr;
  KesOsProcess* process = nullptr;
  for (const int number : {1, 2}) {
    errno = 0;
    const Refuse refused(Call::operatorNew, ENOMEM, nth(number));
    EXPECT_EQ(KesOsMutexCreate(&mutex, key), 0);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(refused.struck(), 1);
  }
  for (int number = 1; process == nullptr; ++number) {
    errno = 0;
    const Refuse refused(Call::operatorNew, ENOMEM, nth(number));
    if (KesOsCreateProcessAsyn("true", 0, &process) == 1) break;
    EXPECT_EQ(errno, ENOMEM) << number;
  }
  EXPECT_EQ(KesOsProcessWait(process, nullptr), 1);
}

TEST_F(FlatFindingsTest, AForkThatIsRefusedANewLockGoesOn) {
  const ChildResult result = inChild([] {
    if (KesOsCreateProcess("true") != 1) return 1;  // now there is a lock to be made anew
    const Refuse refused(Call::pthread_mutex_init, ENOMEM);
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(refused.struck() > 0 ? 7 : 8);
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid ? WEXITSTATUS(status) : 2;
  });
  EXPECT_EQ(result.exitCode(), 7) << result.err;
}

TEST_F(FlatFindingsTest, AnEmptyDirectoryOfATreeIsOpenedOnce) {
  const TempDir dir;
  const std::string top = dir / "top";
  for (const char* path : {"", "/one", "/two", "/two/three"}) ::mkdir((top + path).c_str(), 0700);
  const int before = made(Call::opendir);
  EXPECT_EQ(KesOsDeleteDirTree(top.c_str()), 1);
  EXPECT_EQ(made(Call::opendir) - before, 4 + 2) << "all are looked at, and two have something in them";
}

}  // namespace
}  // namespace kes::test
