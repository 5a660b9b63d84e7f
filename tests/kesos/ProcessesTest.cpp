#include "kesos/processes.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "kesos/Ipc.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

/// A program: a shell script that is executable.
void makeScript(const std::string& path, const std::string& body) {
  writeFile(path, "#!/bin/sh\n" + body + '\n');
  std::filesystem::permissions(path, std::filesystem::perms(0755));
}

struct Ran {
  int result;
  int exitCode;
  bool operator==(const Ran&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Ran& ran) {
  return out << "result " << ran.result << ", exit code " << ran.exitCode;
}

Ran run(const std::string& cmd, unsigned int flags = 0) {
  int exitCode = 77;
  const int result = KesOsCreateProcessEx(cmd.c_str(), flags, &exitCode);
  return {result, exitCode};
}

TEST(ShellProcessTest, TheExitCodeIsThatOfTheProgram) {
  EXPECT_EQ(run("true"), (Ran{1, 0}));
  EXPECT_EQ(run("false"), (Ran{0, 1}));
  EXPECT_EQ(run("sh -c 'exit 200'"), (Ran{0, 200}));
  EXPECT_EQ(run("true && kill -9 $$"), (Ran{0, 255})) << "the shell itself was killed";
  EXPECT_EQ(KesOsCreateProcess("true"), 1);
  EXPECT_EQ(KesOsCreateProcess("false"), 0);
  EXPECT_EQ(KesOsCreateProcessSw("true", 0), 1);
}

TEST(ShellProcessTest, WhatCannotBeFoundGivesMinusOne) {
  EXPECT_EQ(run("kes-no-such-program"), (Ran{0, -1}));
  EXPECT_EQ(run(""), (Ran{0, -1}));
  EXPECT_EQ(run(" true"), (Ran{0, -1})) << "the program's name is empty";
  int exitCode = 77;
  EXPECT_EQ(KesOsCreateProcessEx(nullptr, 0, &exitCode), 0);
  EXPECT_EQ(exitCode, -1);
  EXPECT_EQ(KesOsCreateProcess(nullptr), 0);
}

TEST(ShellProcessTest, AWaitThatIsCancelledLeavesTheExitCodeAtMinusOne) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const TempDir dir;
  static std::string line;
  const std::string here = dir / "here";
  line = "touch " + here + " && while test -e " + here + "; do sleep 0.01; done";
  int exitCode = 77;
  pthread_t waiter{};
  const auto wait = [](void* code) -> void* {
    KesOsCreateProcessEx(line.c_str(), 0, static_cast<int*>(code));
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&waiter, nullptr, wait, &exitCode), 0);
  EXPECT_TRUE(eventually([&here] { return std::filesystem::exists(here); }));
  ::pthread_cancel(waiter);
  void* end = nullptr;
  ASSERT_EQ(::pthread_join(waiter, &end), 0);
  EXPECT_EQ(end, PTHREAD_CANCELED);
  EXPECT_EQ(exitCode, -1);
}

TEST(ShellProcessTest, TheShellSeesTheRestOfTheLine) {
  const TempDir dir;
  EXPECT_EQ(run("echo  a \"b  c\" > " + (dir / "out") + " && echo d >> " + (dir / "out")), (Ran{1, 0}));
  EXPECT_EQ(readFile(dir / "out"), "a b  c\nd\n");
}

TEST(ShellProcessTest, WhiteSpaceInAProgramsPathIsEscaped) {
  const TempDir dir;
  std::filesystem::create_directory(dir / "with space");
  makeScript(dir / "with space/prog", "echo \"$0|$1|$2\" > " + (dir / "out"));
  EXPECT_EQ(run('"' + (dir / "with space/prog") + "\" one \"two three\""), (Ran{1, 0}));
  EXPECT_EQ(readFile(dir / "out"), (dir / "with space/prog") + "|one|two three\n");
  EXPECT_EQ(run('"' + (dir / "with space/prog") + '"'), (Ran{1, 0}));
  EXPECT_EQ(run((dir / "with space/prog")), (Ran{0, -1})) << "without quotes the path ends at the space";
}

TEST(ShellProcessTest, OnlyWhiteSpaceIsEscapedAndBecomesASpace) {
  const TempDir dir;
  makeScript(dir / "with\ttab", "exit 3");
  makeScript(dir / "with$0dollar", "exit 3");
  EXPECT_EQ(run('"' + (dir / "with\ttab") + '"'), (Ran{0, 127})) << "the shell looks for a space";
  EXPECT_EQ(run(dir / "with$0dollar"), (Ran{0, 127})) << "the shell puts its own name there";
  makeScript(dir / "with tab", "exit 4");
  EXPECT_EQ(run('"' + (dir / "with\ttab") + '"'), (Ran{0, 4}));
}

TEST(ShellProcessTest, QuotesAroundTheProgramAreTakenOffAndOthersReachTheShell) {
  const TempDir dir;
  makeScript(dir / "prog", "exit 3");
  makeScript(dir / "quo\"t\"e", "exit 4");
  makeScript(dir / "quote", "exit 5");
  for (const char* end : {"", "\"", "\"\""}) {
    EXPECT_EQ(run('"' + (dir / "prog") + end), (Ran{0, 3})) << end;
    EXPECT_EQ(run((dir / "prog") + end + " argument"), (Ran{0, 3})) << end;
  }
  EXPECT_EQ(run(dir / "quo\"t\"e"), (Ran{0, 5})) << "found, and then the shell takes the quotes off";
}

TEST(ShellProcessTest, WithTheFlagNobodyWaits) {
  const TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "go").c_str(), 0600), 0);
  EXPECT_EQ(
      run("sh -c 'cat " + (dir / "go") + "; echo done > " + (dir / "out") + "; exit 3'", KESOS_PROCESS_ASYNC),
      (Ran{1, 0}));
  EXPECT_FALSE(std::filesystem::exists(dir / "out"));
  writeFile(dir / "go", "");
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(dir / "out"); }));
}

TEST(ShellProcessTest, ManyChildrenThatNobodyWaitsForAreAllCollected) {
  for (int index = 0; index < 20; ++index) EXPECT_EQ(run("true", KESOS_PROCESS_ASYNC), (Ran{1, 0}));
  EXPECT_TRUE(eventually([] {
    return shell("ps -o stat= --ppid " + std::to_string(::getppid()) + " >/dev/null; ps -o stat= --ppid " +
                 std::to_string(::getpid()) + " | grep -c Z || true") == "0";
  }));
}

TEST(ProcessTest, AProgramIsStartedWithItsArguments) {
  const TempDir dir;
  makeScript(dir / "prog", "printf '%s|' \"$@\" > " + (dir / "out") + "; exit 7");
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn(((dir / "prog") + " a \"b c\" d").c_str(), 12345, &process), 1);
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1);
  EXPECT_EQ(exitCode, 7U);
  EXPECT_EQ(readFile(dir / "out"), "a|b c|d|");
}

TEST(ProcessTest, ItRunsUntilItIsTerminated) {
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn("sleep 600", 0, &process), 1);
  EXPECT_EQ(KesOsProcessIsRunning(process), 1);
  EXPECT_EQ(KesOsTerminateProcess(process), 1);
  EXPECT_TRUE(eventually([=] { return KesOsProcessIsRunning(process) == 0; }));
  EXPECT_EQ(KesOsProcessIsRunning(process), 0);
  EXPECT_EQ(KesOsTerminateProcess(process), 0);
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1);
  EXPECT_EQ(exitCode, 0U) << "a signal leaves no exit status";
}

TEST(ProcessTest, TheStatusIsStillThereAfterAPollHasReapedTheProcess) {
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn("sh -c \"exit 9\"", 0, &process), 1);
  EXPECT_TRUE(eventually([=] { return KesOsProcessIsRunning(process) == 0; }));
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1);
  EXPECT_EQ(exitCode, 9U);
}

TEST(ProcessTest, WhatCannotBeStartedEndsWithExitCode127) {
  for (const char* cmd : {"kes-no-such-program a", "", "/", "/dev/null"}) {
    KesOsProcess* process = nullptr;
    ASSERT_EQ(KesOsCreateProcessAsyn(cmd, 0, &process), 1);
    unsigned int exitCode = 77;
    EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1);
    EXPECT_EQ(exitCode, 127U) << cmd;
  }
}

TEST(ProcessTest, AChildThatSomebodyElseReapedGivesZero) {
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn("true", 0, &process), 1);
  int status = 0;
  EXPECT_GT(::wait(&status), 0);
  EXPECT_EQ(KesOsProcessIsRunning(process), 1) << "an error counts as running";
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 0);
  EXPECT_EQ(exitCode, 77U);
}

TEST(ProcessTest, AnExhaustedSystemMakesStartsFail) {
  const ChildResult result = asNobody([] {
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_NPROC, &none) != 0) return 1;
    char unused = 0;
    auto* process = reinterpret_cast<KesOsProcess*>(&unused);
    if (KesOsCreateProcessAsyn("true", 0, &process) != 0 || process != nullptr) return 2;
    if (KesOsCreateProcessAsyn("true", 0, nullptr) != 0) return 3;
    return run("true") == Ran{0, -1} ? 0 : 4;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ProcessTest, AWaitThatIsCancelledLeavesTheHandleToTheNextOne) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn("sleep 60", 0, &process), 1);
  pthread_t waiter{};
  const auto wait = [](void* arg) -> void* {
    KesOsProcessWait(static_cast<KesOsProcess*>(arg), nullptr);
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&waiter, nullptr, wait, process), 0);
  ::pthread_cancel(waiter);
  void* end = nullptr;
  ASSERT_EQ(::pthread_join(waiter, &end), 0);
  EXPECT_EQ(end, PTHREAD_CANCELED);
  EXPECT_EQ(KesOsTerminateProcess(process), 1);
  EXPECT_EQ(KesOsProcessWait(process, nullptr), 1);
}

TEST(ProcessTest, AWaitGoesOnAfterASignal) {
  static volatile sig_atomic_t signals = 0;
  const ChildResult result = inChild([] {
    struct sigaction action {};
    action.sa_handler = [](int) { signals = signals + 1; };
    ::sigaction(SIGALRM, &action, nullptr);
    KesOsProcess* process = nullptr;
    if (KesOsCreateProcessAsyn("sh -c \"sleep 0.2; exit 5\"", 0, &process) != 1) return 1;
    const itimerval often{{0, 10'000}, {0, 10'000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    unsigned int exitCode = 77;
    if (KesOsProcessWait(process, &exitCode) != 1) return 2;
    return exitCode == 5 && signals > 0 ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ProcessTest, WithoutAHandleTheProgramIsNobodysChild) {
  const TempDir dir;
  makeScript(dir / "prog", "ps -o ppid=,sid=,pid= -p $$ > " + (dir / "out.tmp") + "; mv " +
                               (dir / "out.tmp") + " " + (dir / "out"));
  EXPECT_EQ(KesOsCreateProcessAsyn((dir / "prog").c_str(), 0, nullptr), 1);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "its parent was waited for";
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(dir / "out"); }));
  std::istringstream facts(readFile(dir / "out"));
  pid_t parent = 0, session = 0, own = 0;
  facts >> parent >> session >> own;
  EXPECT_NE(parent, ::getpid());
  EXPECT_NE(session, ::getsid(0));
  EXPECT_NE(session, own) << "it leads no session, so it gets no terminal";
  EXPECT_EQ(KesOsCreateProcessAsyn("kes-no-such-program", 0, nullptr), 1) << "nobody hears of that";
}

TEST(ProcessTest, AStartThatSucceedsCopiesNothingOfThisProcess) {
  KES_SKIP_UNDER_SANITIZERS("cannot watch a child that shares its parent's memory: there it is a plain fork");
  static int forks = 0;
  ::pthread_atfork([] { ++forks; }, nullptr, nullptr);
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn("/bin/true", 0, &process), 1);
  unsigned int code = 1;
  EXPECT_EQ(KesOsProcessWait(process, &code), 1);
  EXPECT_EQ(code, 0U);
  EXPECT_EQ(KesOsCreateProcessAsyn("/bin/true", 0, nullptr), 1);
  EXPECT_EQ(KesOsCreateProcessAsyn("/no/such/program", 0, nullptr), 1);
  EXPECT_EQ(forks, 0);
  EXPECT_EQ(::waitpid(-1, nullptr, __WALL), -1);
}

TEST(ProcessTest, ProgramsGetTheMaskThatThisProcessStartedWith) {
  const TempDir dir;
  sigset_t blocked, before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  KesOsProcess* process = nullptr;
  const std::string cmd = "sh -c \"grep SigBlk /proc/self/status > " + (dir / "out") + "\"";
  ASSERT_EQ(KesOsCreateProcessAsyn(cmd.c_str(), 0, &process), 1);
  EXPECT_EQ(KesOsProcessWait(process, nullptr), 1);
  EXPECT_EQ(readFile(dir / "out"), "SigBlk:\t0000000000000000\n");
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(ProcessTest, NullHandlesGiveZero) {
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessIsRunning(nullptr), 0);
  EXPECT_EQ(KesOsProcessWait(nullptr, &exitCode), 0);
  EXPECT_EQ(KesOsTerminateProcess(nullptr), 0);
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn(nullptr, 0, &process), 1);
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1);
  EXPECT_EQ(exitCode, 127U);
}

TEST(ProcessTest, ALineOfTooManyArgumentsShowsAsExitCode127) {
  std::string line = "true";
  for (int argument = 0; argument < 5000; ++argument) line += " a";
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn(line.c_str(), 0, &process), 1);
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1);
  EXPECT_EQ(exitCode, 127U);
}

TEST(ProcessTest, ADescriptorIsClosedOnce) {
  const int fd = ::dup(1);
  EXPECT_EQ(KesOsCloseHdl(fd), 1);
  EXPECT_EQ(KesOsCloseHdl(fd), 0);
  EXPECT_EQ(KesOsCloseHdl(-1), 0);
}

}  // namespace
