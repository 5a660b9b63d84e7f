// What a Mac is asked about processes and users (tests/macos/questions.txt). Portable, so that Linux can show
// that the questions are put right.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "kesos/kesos.h"
#include "kespal/GroupInfo.h"
#include "kespal/UserInfo.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Output.h"
#include "kespal/proc/Privilege.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/ForkedChild.h"

namespace kes::proc {
namespace {

constexpr std::chrono::minutes patience(1);

class ProcessPromisesTest : public testing::Test {
 protected:
  ProcessPromisesTest() { time::ClockBase::init(); }
  ~ProcessPromisesTest() override { Child::exit(); }
};

TEST_F(ProcessPromisesTest, AChildTellsHowItEnded) {
  Child child({"/bin/sh", "-c", "exit 7"});
  child.create();
  EXPECT_EQ(ExitStatus(child.wait().status).exitCode(), 7);
  child.setArguments({"/bin/sleep", "1000"});
  child.create();
  EXPECT_EQ(child.terminate(patience).signal(), SIGTERM);
}

TEST_F(ProcessPromisesTest, ACollectorOfRegisteredChildrenLeavesOthersAlone) {
  const test::ChildResult result = test::inChild([] {
    Child::setReaping(Reaping::Registered);
    Child child({"/bin/sleep", "1000"});
    child.create();
    const pid_t other = ::fork();
    if (other == 0) ::_exit(3);
    int status = 0;
    const bool isOurs = ::waitpid(other, &status, 0) == other && WEXITSTATUS(status) == 3;
    return isOurs && child.terminate(patience).signal() == SIGTERM ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(ProcessPromisesTest, TheOutputOfAProgramIsHadInOneCall) {
  Child child({"/bin/sh", "-c", "cat; echo wrong >&2; exit 2"});
  const Output output = captureOutput(child, {.input = "given\n", .limit = patience});
  EXPECT_EQ(output.out, "given\n");
  EXPECT_EQ(output.err, "wrong\n");
  EXPECT_EQ(output.status.exitCode(), 2);
}

TEST_F(ProcessPromisesTest, AProgramOfAnotherUserHasThatOnesIdsAndNoOthers) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root starts programs of other users";
  const UserInfo nobody("nobody");
  Child child({"/bin/sh", "-c", "id -u; id -g; id -G"});
  child.setUser(nobody);
  const std::string uid = std::to_string(nobody.uid), gid = std::to_string(nobody.gid);
  EXPECT_EQ(captureOutput(child, {.limit = patience}).out, uid + "\n" + gid + "\n" + gid + "\n");
}

TEST_F(ProcessPromisesTest, TheUserOfThisProcessIsFoundByIdAndByName) {
  const UserInfo user = Privilege().effectiveProcUser();
  EXPECT_EQ(user.uid, ::geteuid());
  EXPECT_EQ(UserInfo(user.name).uid, user.uid);
  EXPECT_EQ(GroupInfo(UserInfo(user.uid).group).gid(), UserInfo(user.uid).gid);
  EXPECT_EQ(Privilege::haveRootPrivilege(), ::geteuid() == 0);
}

TEST_F(ProcessPromisesTest, WhoGaveUpRootHasNoWayBack) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give it up";
  const test::ChildResult result = test::inChild([] {
    Privilege privilege;
    privilege.changePrivilege(UserInfo("nobody"), /*permanent=*/true, /*changeGroups=*/true);
    return !Privilege::haveRootPrivilege() && ::setuid(0) != 0 && ::seteuid(0) != 0 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(ProcessPromisesTest, AFlatProcessTellsHowItEnded) {
  const char* const arguments[] = {"/bin/sh", "-c", "exit 5", nullptr};
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.arguments = arguments;
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsynEx(nullptr, &options, &process), 1);
  unsigned code = 0;
  EXPECT_EQ(KesOsProcessWaitEx(process, 60'000, &code, nullptr), 1);
  EXPECT_EQ(code, 5U);
  EXPECT_EQ(KesOsProcessClose(process), 1);
}

TEST_F(ProcessPromisesTest, ALibraryIsLoadedAndAsked) {
  const char* error = nullptr;
  void* const library = KesOsDlLoadEx(KES_PROMISES_PLUGIN, &error);
  ASSERT_NE(library, nullptr) << error;
  auto* const function = reinterpret_cast<int (*)()>(KesOsDlGetAddr(library, "kesNativePlugin"));
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(function(), 1);
  EXPECT_EQ(KesOsDlGetAddr(library, "kesNoSuchFunction"), nullptr);
  EXPECT_EQ(KesOsDlFree(library), 1);
}

/// Keys are the machine's: another run of these tests has others.
const unsigned key = 0x4b000000U + 2 * static_cast<unsigned>(::getpid());

/// How long the mutex is waited for by another process: until the given time is over, or it gets it.
int takenByAnother(unsigned milliseconds) {
  return test::inChild([milliseconds] {
           KesOsMutex* mutex = nullptr;
           unsigned state = 0;
           if (KesOsMutexOpen(&mutex, key) == 0) return 98;
           const int result = KesOsMutexWaitEx(mutex, milliseconds, &state);
           if (result == 1) KesOsMutexRelease(mutex);
           KesOsMutexClose(mutex);
           return result == 1 ? 1 : 0;
         })
      .exitCode();
}

TEST_F(ProcessPromisesTest, AKeyedMutexIsSharedByProcesses) {
  KesOsRemoveKeyed(key);
  KesOsMutex* mutex = nullptr;
  ASSERT_EQ(KesOsMutexCreate(&mutex, key), 1);
  ASSERT_EQ(KesOsMutexWait(mutex, KESOS_INFINITE, nullptr), 1);
  EXPECT_EQ(takenByAnother(20), 0);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(takenByAnother(60'000), 1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
}

TEST_F(ProcessPromisesTest, AKeyedEventWakesAnotherProcess) {
  KesOsRemoveKeyed(key + 1);
  KesOsEvent* event = nullptr;
  ASSERT_EQ(KesOsEventCreate(&event, key + 1), 1);
  const test::ChildResult setter = test::inChild([] {
    KesOsEvent* same = nullptr;
    return KesOsEventOpen(&same, key + 1) == 1 && KesOsEventSet(same) == 1 ? 0 : 1;
  });
  EXPECT_EQ(setter.exitCode(), 0) << setter.err;
  EXPECT_EQ(KesOsEventWaitEx(event, 60'000, nullptr), KESOS_WAIT_DONE);
  EXPECT_EQ(KesOsEventClose(event), 1);
}

}  // namespace
}  // namespace kes::proc
