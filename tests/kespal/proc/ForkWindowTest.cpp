// Between a fork and a successful exec the child may make system calls only: it has a copy of every lock
// that another thread held at the moment of the fork. Here each allocation and each lock is counted there.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>

#include "kespal/error/OsError.h"
#include "kespal/fs/Ops.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Mask.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/TempDir.h"

namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

/// What the children of this process have done, in memory that they share with it.
struct Counts {
  std::atomic<int> allocations, locks, lookUps, execs;
  std::atomic<int> failDup2, failSigmask, failExec, failSetpgid;  // with which error they are to
  std::atomic<int> killFirst;                                     // by which signal, right before its exec
};

Counts& counts() {
  static auto* const shared = static_cast<Counts*>(
      ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return *shared;
}

std::atomic<pid_t> g_watched{0};    // the process whose children are counted
const char* translation = nullptr;  // the system's text of every error, if it is to be another one

/// Reads it once: the watch may end while a thread of the process itself asks.
bool isForkedChild() {
  const pid_t watched = g_watched;
  return watched != 0 && ::getpid() != watched;
}

void noteAllocation() {
  if (isForkedChild()) ++counts().allocations;
}

const Instead<Call::malloc> mallocHere([](std::size_t size) -> void* {
  noteAllocation();
  return real<Call::malloc>(size);
});

const Instead<Call::calloc> callocHere([](std::size_t count, std::size_t size) -> void* {
  noteAllocation();
  return real<Call::calloc>(count, size);
});

const Instead<Call::pthread_mutex_lock> lockHere([](pthread_mutex_t* mutex) {
  if (isForkedChild()) ++counts().locks;
  return real<Call::pthread_mutex_lock>(mutex);
});

const Instead<Call::__xpg_strerror_r> strerrorHere([](int errnum, char* buffer, std::size_t size) {
  if (isForkedChild()) ++counts().lookUps;
  if (translation == nullptr) return real<Call::__xpg_strerror_r>(errnum, buffer, size);
  std::snprintf(buffer, size, "%s", translation);
  return 0;
});

const Instead<Call::backtrace> backtraceHere([](void** frames, int size) {
  if (isForkedChild()) ++counts().lookUps;
  return real<Call::backtrace>(frames, size);
});

const Instead<Call::pthread_sigmask> maskHere([](int how, const sigset_t* set, sigset_t* before) {
  const int error = isForkedChild() ? counts().failSigmask.load() : 0;
  return error != 0 ? error : real<Call::pthread_sigmask>(how, set, before);
});

const Instead<Call::execve> execveHere([](const char* path, char* const* arguments,
                                          char* const* environment) {
  if (isForkedChild()) ++counts().execs;
  return real<Call::execve>(path, arguments, environment);
});

const Instead<Call::execvp> execvpHere([](const char* file, char* const* arguments) {
  if (isForkedChild()) ++counts().execs;
  if (const int signal = isForkedChild() ? counts().killFirst.exchange(0) : 0) ::kill(::getpid(), signal);
  if (isForkedChild() && counts().failExec != 0) {
    errno = counts().failExec;
    return -1;
  }
  return real<Call::execvp>(file, arguments);
});

const Instead<Call::setpgid> setpgidHere([](pid_t process, pid_t group) {
  if (isForkedChild() && counts().failSetpgid != 0) {
    errno = counts().failSetpgid;
    return -1;
  }
  return real<Call::setpgid>(process, group);
});

const Instead<Call::dup2> dup2Here([](int from, int to) {
  if (isForkedChild() && counts().failDup2 != 0) {
    errno = counts().failDup2;
    return -1;
  }
  return real<Call::dup2>(from, to);
});

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap gives
extern "C" void* __real_realloc(void* memory, std::size_t size);
extern "C" void* __wrap_realloc(void* memory, std::size_t size) {
  noteAllocation();
  return __real_realloc(memory, size);
}
extern "C" void __real_free(void* memory);
extern "C" void __wrap_free(void* memory) {
  noteAllocation();
  __real_free(memory);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace kes::proc {
namespace {

class ForkWindowTest : public testing::Test {
 protected:
  void SetUp() override {
    counts().allocations = counts().locks = counts().execs = 0;
    letEverythingSucceed();
    test::NoMemory::ask([] {
      noteAllocation();
      return false;
    });
    Child::init();
    g_watched = ::getpid();
  }
  void TearDown() override { g_watched = 0; }

  static void letEverythingSucceed() {
    counts().failDup2 = counts().failSigmask = counts().failExec = counts().failSetpgid = 0;
    counts().killFirst = 0;
  }

  static void expectACleanWindow(Child& child, int execs) {
    child.create(false);
    EXPECT_EQ(child.wait(false, {}).status, 0);
    EXPECT_EQ(counts().execs, execs);
    EXPECT_EQ(counts().allocations, 0);
    EXPECT_EQ(counts().locks, 0);
  }
};

TEST_F(ForkWindowTest, WithTheParentsEnvironmentNothingIsAllocatedAndNoLockTaken) {
  Child child({"true"});
  expectACleanWindow(child, 1);
}

TEST_F(ForkWindowTest, WithAnEnvironmentAndASearchOnPathNeither) {
  Child child({"true"});
  child.setEnvironment({"A=1", "B=2"});
  expectACleanWindow(child, 2);
}

TEST_F(ForkWindowTest, WithEverythingElseThatCanBeSetNeither) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  Child child({"/bin/true"});
  child.setEnvironment({"A=1"});
  child.setWorkingDirectory("/");
  child.setStdin(null);
  child.setStdout(null);
  child.setStderr(null);
  child.setNewProcessGroup(true);
  expectACleanWindow(child, 1);
  ::close(null);
}

TEST_F(ForkWindowTest, AsAnotherUserNeither) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start a program as another user";
  UserInfo stranger;
  stranger.uid = stranger.gid = 64444;
  Child child({"true"});
  child.setUser(stranger, {4, 27});
  child.setEnvironment({"A=1", "PATH=/no/such/place:/bin"});
  child.setSearchOwnPath(true);
  child.setWorkingDirectory("/");
  expectACleanWindow(child, 2);
}

TEST_F(ForkWindowTest, AStreamThatCannotBeDuplicatedIsToldAndTheProgramStartsAllTheSame) {
  const auto result = test::inChild([] {
    counts().failDup2 = EBUSY;
    g_watched = ::getpid();
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    Child child({"/bin/true"});
    child.setStdin(null);
    child.setStdout(null);
    child.setStderr(null);
    child.create(false);
    const int status = child.wait(false, {}).status;
    Child::exit();
    return status;
  });
  const std::string number = std::to_string(EBUSY);
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "Error dup2()'ing stdout: " + number + "\nError dup2()'ing stderr: " + number +
                            "\nError dup2()'ing stdin: " + number + "\n");
}

TEST_F(ForkWindowTest, TheProgramStartsAllTheSameWhereNobodyReadsThatAStreamCannotBeDuplicated) {
  const auto result = test::inChild([] {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], STDERR_FILENO) == -1) return -1;
    ::close(ends[0]);
    counts().failDup2 = EBUSY;
    g_watched = ::getpid();
    Child child({"/bin/true"});
    child.setStdout(ends[1]);
    child.create(false);
    const int status = child.wait(false, {}).status;
    Child::exit();
    return WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
  });
  EXPECT_EQ(result.exitCode(), 0);
}

/// How a program ends that a signal meets on its way there.
int statusOfOneMetBy(int signal) {
  counts().killFirst = signal;
  Child child({"/bin/true"});
  child.create(false);
  return child.wait(false, {}).status;
}

TEST_F(ForkWindowTest, ASignalThatComesBeforeTheExecEndsTheChildAsItEndsAProgram) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGKILL}) {
    const int status = statusOfOneMetBy(signal);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), signal);
  }
}

TEST_F(ForkWindowTest, AFaultOfAChildThatSharesMemoryIsNoneOfTheProgram) {
  EXPECT_EQ(statusOfOneMetBy(SIGSEGV), 0);
}

/// What a start that has to fail says, and whether its child took memory, a lock, an error's text from the
/// locale or a backtrace meanwhile.
test::ChildResult failingStart(const std::function<void(Child&)>& setUp, const char* program = "/bin/true") {
  return test::inChild([&] {
    counts().allocations = counts().locks = counts().lookUps = 0;
    g_watched = ::getpid();
    Child child({program});
    setUp(child);
    child.create(false);
    const int status = child.wait(false, {}).status;
    g_watched = 0;
    Child::exit();
    std::cout << counts().allocations << ' ' << counts().locks << ' ' << counts().lookUps;
    return WEXITSTATUS(status);
  });
}

/// The text of a report with its process id left out.
std::string withoutPid(std::string text) {
  const std::string before = "In child process ";
  const std::size_t at = text.find(before);
  if (at == text.npos) return text;
  const std::size_t from = at + before.size();
  return text.erase(from, text.find(' ', from) - from);
}

std::string stackOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Exception& error) {
    return error.exStack();
  }
  return "";
}

struct Trouble {
  const char* name;
  const char* program;
  int exitCode;
  std::function<void(Child&)> setUp;
};

/// What may go wrong on the way to a program, besides what has tests of its own.
std::vector<Trouble> troubles(const test::TempDir& dir) {
  const std::string script = dir / "script";
  test::writeFile(script, "exit 4\n");
  ::chmod(script.c_str(), 0700);
  static const std::string scriptName = script;
  const auto withGroup = [](Child& child) { child.setNewProcessGroup(true); };
  return {
      {"a stream", "/bin/true", 0,
       [](Child& child) {
         child.setStdout(STDERR_FILENO);
         counts().failDup2 = EBUSY;
       }},
      {"the group", "/bin/true", 0,
       [withGroup](Child& child) {
         withGroup(child);
         counts().failSetpgid = EPERM;
       }},
      {"no right to execute", "/etc/passwd", 125, [](Child&) {}},
      {"a directory", "/", 125, [withGroup](Child& child) { withGroup(child); }},
      {"a name that is too long", "/bin/true", 125,
       [](Child& child) { child.setArguments({std::string(5000, 'x')}); }},
      {"too many arguments", "/bin/true", 125,
       [](Child& child) {
         child.setArguments({"/bin/true", std::string(200'000, 'x')});
       }},
      {"a script without a first line", scriptName.c_str(), 4, [](Child&) {}},
      {"another user", "/bin/true", 125,
       [](Child& child) {
         UserInfo stranger;
         stranger.uid = stranger.gid = 64444;
         child.setUser(stranger, {0xFFFFFFFF});
       }},
      {"a search of its own path", "kes-no-such-program", 125,
       [](Child& child) {
         child.setEnvironment({"PATH=/bin:/usr/bin"});
         child.setSearchOwnPath(true);
       }},
      {"the same with an environment", scriptName.c_str(), 125,
       [](Child& child) { child.setEnvironment({"A=1"}); }},
  };
}

TEST_F(ForkWindowTest, WhateverGoesWrongNothingIsAllocatedAndNoLockTaken) {
  const test::TempDir dir;
  for (const Trouble& trouble : troubles(dir)) {
    for (const int refused : {0, EPERM}) {  // of a child that shares memory: a plain fork has to do
      std::optional<test::Refuse> noSharing;
      const auto result = failingStart(
          [&](Child& child) {
            trouble.setUp(child);
            if (refused != 0) noSharing.emplace(Call::clone, refused);
          },
          trouble.program);
      letEverythingSucceed();
      EXPECT_EQ(result.out, "0 0 0") << trouble.name;
      EXPECT_EQ(result.exitCode(), trouble.exitCode) << trouble.name << '\n' << result.err;
    }
  }
}

TEST_F(ForkWindowTest, AProgramThatCannotBeStartedIsToldWithoutMemoryLocksOrLookUps) {
  OsError error(ENOENT);
  error.setSite({"src/os/posix/proc/Child", 318, "create"});
  for (const bool withEnvironment : {false, true}) {
    const auto result = failingStart(
        [withEnvironment](Child& child) {
          if (withEnvironment) child.setEnvironment({"A=1"});
        },
        "kes-no-such-program");
    EXPECT_EQ(result.exitCode(), 125);
    EXPECT_EQ(result.out, "0 0 0");
    EXPECT_EQ(withoutPid(result.err), "In child process  (kes-no-such-program):\n" + error.exStack() + "\n");
  }
}

TEST_F(ForkWindowTest, ADirectoryThatCannotBeEnteredIsToldAsItsOperationDoes) {
  for (const char* directory : {"/no/such/directory", "/dev/null"}) {
    const auto result = failingStart([directory](Child& child) { child.setWorkingDirectory(directory); });
    EXPECT_EQ(result.exitCode(), 125);
    EXPECT_EQ(result.out, "0 0 0");
    EXPECT_EQ(withoutPid(result.err), "In child process  (/bin/true):\n\nCannot change working directory:\n" +
                                          stackOf([directory] { fs::Ops::setCWD(directory); }));
  }
}

TEST_F(ForkWindowTest, AMaskThatCannotBeRestoredIsToldAsItsOperationDoes) {
  const auto result = failingStart([](Child&) { counts().failSigmask = EINVAL; });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_EQ(result.out, "0 0 0");
  EXPECT_EQ(withoutPid(result.err),
            "In child process  (/bin/true):\n" + stackOf([] { signal::Mask::call({}, -1); }) + "\n");
}

TEST_F(ForkWindowTest, ABacktraceInAFailedStartsReportWasTakenBefore) {
  Exception::m_gen_backtraces = true;
  const auto result = failingStart([](Child&) {}, "/no/such/program");
  Exception::m_gen_backtraces = false;
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_EQ(result.out, "0 0 0");
  EXPECT_THAT(result.err, testing::HasSubstr("Function call backtrace:\n"));
  EXPECT_THAT(result.err, testing::HasSubstr("create"));
  EXPECT_THAT(result.err,
              testing::EndsWith("\tSystem/Library call error: No such file or directory (2)\n\n"));
}

TEST_F(ForkWindowTest, TheTextOfAnErrorIsTheOneOfTheParentsLanguage) {
  translation = "Datei oder Verzeichnis nicht gefunden";
  const auto result = failingStart([](Child&) {}, "/no/such/program");
  translation = nullptr;
  EXPECT_EQ(result.out, "0 0 0");
  EXPECT_THAT(result.err, testing::HasSubstr("error: Datei oder Verzeichnis nicht gefunden (2)\n"));
}

TEST_F(ForkWindowTest, AnErrorThatNobodyExpectedHasItsTextWithoutTranslation) {
  for (const int errnum : {ENOTUNIQ, 4242}) {
    const auto result = failingStart([errnum](Child&) { counts().failExec = errnum; });
    counts().failExec = 0;
    const OsError error(errnum);
    EXPECT_EQ(result.out, "0 0 0");
    EXPECT_THAT(result.err, testing::HasSubstr("error: " + error.text() + "\n"));
    EXPECT_EQ(result.err.starts_with("text: error getting error text from strerror_r!\n"), errnum == 4242);
  }
}

}  // namespace
}  // namespace kes::proc
