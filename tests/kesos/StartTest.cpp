#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include "kesos/processes.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

// Programs that are started with options, and what is asked of their handles.
namespace {

using namespace kes::test;

/// How children are made: with the memory of this process, or, where that is refused, with their own.
class StartTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!GetParam()) refused_.emplace(Call::clone, EPERM);
  }

 private:
  std::optional<Refuse> refused_;
};
INSTANTIATE_TEST_SUITE_P(Children, StartTest, testing::Bool(), [](const testing::TestParamInfo<bool>& kind) {
  return kind.param ? "SharedMemory" : "OwnMemory";
});

struct End {
  unsigned int exitCode = 77;
  int signal = 77;
  bool operator==(const End&) const = default;
};
std::ostream& operator<<(std::ostream& out, const End& end) {
  return out << "exit code " << end.exitCode << ", signal " << end.signal;
}

/// How a child ended, which is closed then.
End endOf(KesOsProcess* process) {
  End end;
  EXPECT_EQ(KesOsProcessWaitEx(process, KESOS_INFINITE, &end.exitCode, &end.signal), 1);
  EXPECT_EQ(KesOsProcessClose(process), 1);
  return end;
}

KesOsProcess* startShell(const char* script, KesOsProcessOptions options = KESOS_PROCESS_OPTIONS) {
  const char* const arguments[] = {"/bin/sh", "-c", script, nullptr};
  options.arguments = arguments;
  KesOsProcess* process = nullptr;
  EXPECT_EQ(KesOsCreateProcessAsynEx(nullptr, &options, &process), 1) << std::strerror(errno);
  return process;
}

/// What a script writes to standard output.
std::string outputOf(const char* script, KesOsProcessOptions options = KESOS_PROCESS_OPTIONS) {
  const TempDir dir;
  const int fd = ::open((dir / "out").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  options.standardOutput = fd;
  EXPECT_EQ(endOf(startShell(script, options)), (End{0, 0}));
  ::close(fd);
  return readFile(dir / "out");
}

/// errno of a start that fails; 0 when it does not.
int refusal(const char* cmd, const KesOsProcessOptions* options) {
  auto* process = reinterpret_cast<KesOsProcess*>(1);
  if (KesOsCreateProcessAsynEx(cmd, options, &process) == 1) return endOf(process), 0;
  const int errnum = errno;
  EXPECT_EQ(process, nullptr);
  EXPECT_EQ(::waitpid(-1, nullptr, 0), -1) << "a child is left";
  return errnum;
}

TEST_P(StartTest, TheExitCodeAndTheEndingSignalAreTold) {
  EXPECT_EQ(endOf(startShell("exit 0")), (End{0, 0}));
  EXPECT_EQ(endOf(startShell("exit 200")), (End{200, 0}));
  EXPECT_EQ(endOf(startShell("kill -9 $$")), (End{0, SIGKILL}));
  EXPECT_EQ(endOf(startShell("kill -TERM $$")), (End{0, SIGTERM}));
}

TEST_P(StartTest, AWaitIsGivenUpWhenItsTimeIsOverAndTheHandleStays) {
  KesOsProcess* process = startShell("exec sleep 1000");
  const pid_t id = KesOsProcessId(process);
  for (const unsigned int limit : {0U, 1U, 100U}) {
    const auto start = std::chrono::steady_clock::now();
    End end;
    EXPECT_EQ(KesOsProcessWaitEx(process, limit, &end.exitCode, &end.signal), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(end, End()) << "nothing is told";
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(limit));
  }
  EXPECT_EQ(KesOsProcessIsRunning(process), 1);
  EXPECT_EQ(::kill(id, SIGKILL), 0);
  for (int times = 0; times < 2; ++times) {
    End end;
    EXPECT_EQ(KesOsProcessWaitEx(process, 60'000, &end.exitCode, &end.signal), 1);
    EXPECT_EQ(end, (End{0, SIGKILL})) << "as often as it is asked";
    EXPECT_EQ(KesOsProcessWaitEx(process, 0, nullptr, nullptr), 1);
  }
  EXPECT_EQ(KesOsProcessId(process), id) << "also after the end";
  unsigned int exitCode = 77;
  EXPECT_EQ(KesOsProcessWait(process, &exitCode), 1) << "the plain call frees the handle as well";
  EXPECT_EQ(exitCode, 0U);
}

TEST_P(StartTest, AWaitWorksWhereTheSystemDoesNotWatchChildren) {
  const Refuse refused(Call::poll, ENOMEM);
  KesOsProcess* process = startShell("sleep 0.1; exit 3");
  End end;
  EXPECT_EQ(KesOsProcessWaitEx(process, 60'000, &end.exitCode, &end.signal), 1);
  EXPECT_EQ(end, (End{3, 0}));
  EXPECT_GE(refused.struck(), 1);
  KesOsProcessClose(process);
}

TEST_P(StartTest, AChildThatSomebodyElseReapedIsAnAnswer) {
  KesOsProcess* process = startShell("exit 0");
  ::waitpid(KesOsProcessId(process), nullptr, 0);
  for (const unsigned int limit : {0U, 100U, KESOS_INFINITE}) {
    EXPECT_EQ(KesOsProcessWaitEx(process, limit, nullptr, nullptr), 0);
    EXPECT_EQ(errno, ECHILD);
  }
  EXPECT_EQ(KesOsProcessClose(process), 1);
}

TEST_P(StartTest, AHandleIsClosedWithoutAWait) {
  KesOsProcess* process = startShell("exec sleep 1000");
  const pid_t id = KesOsProcessId(process);
  EXPECT_EQ(KesOsProcessClose(process), 1);
  EXPECT_EQ(::waitpid(id, nullptr, WNOHANG), 0) << "it runs on";
  ::kill(id, SIGKILL);
  EXPECT_EQ(::waitpid(id, nullptr, 0), id);
}

TEST_P(StartTest, AClosedHandleLeavesNoStatusOfAChildThatHasEnded) {
  KesOsProcess* process = startShell("exit 0");
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(KesOsProcessId(process)), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(KesOsProcessClose(process), 1);
  EXPECT_EQ(::waitpid(-1, nullptr, 0), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_P(StartTest, TheStreamsAreWhatWasGiven) {
  const TempDir dir;
  writeFile(dir / "in", "what comes in");
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.standardInput = ::open((dir / "in").c_str(), O_RDONLY | O_CLOEXEC);
  options.standardOutput = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  options.standardError = ::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(endOf(startShell("cat; echo trouble >&2", options)), (End{0, 0}));
  EXPECT_EQ(readFile(dir / "out"), "what comes in");
  EXPECT_EQ(readFile(dir / "err"), "trouble\n");
  for (const int fd : {options.standardInput, options.standardOutput, options.standardError}) {
    EXPECT_EQ(::close(fd), 0) << "they stay the caller's";
  }
}

TEST_P(StartTest, OneDescriptorServesAsTwoStreams) {
  const TempDir dir;
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.standardOutput = options.standardError =
      ::open((dir / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  EXPECT_EQ(endOf(startShell("echo one; echo two >&2", options)), (End{0, 0}));
  EXPECT_EQ(readFile(dir / "log"), "one\ntwo\n");
  ::close(options.standardOutput);
}

TEST_P(StartTest, StreamsChangePlaces) {
  const ChildResult result = inChild([] {
    KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
    options.standardOutput = STDERR_FILENO;
    options.standardError = STDOUT_FILENO;
    return endOf(startShell("echo out; echo err >&2", options)) == End{0, 0} ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, "err\n");
  EXPECT_EQ(result.err, "out\n");
}

TEST_P(StartTest, AStreamOfThisProcessThatIsClosedByExecIsGivenAllTheSame) {
  const ChildResult result = inChild([] {
    ::fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
    KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
    options.standardOutput = STDOUT_FILENO;
    return endOf(startShell("echo kept", options)) == End{0, 0} ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, "kept\n");
}

TEST_P(StartTest, AChildHasNoStrayDescriptors) {
  const ChildResult result = inChild([] {
    ::close_range(STDERR_FILENO + 1, ~0U, 0);  // what this program was started with
    KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
    options.standardError = ::dup(STDOUT_FILENO);
    ::fcntl(options.standardError, F_SETFD, FD_CLOEXEC);
    const char script[] = "for fd in 3 4 5 6 7 8 9; do if test -e /proc/$$/fd/$fd; then echo $fd; fi; done";
    return endOf(startShell(script, options)) == End{0, 0} ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, "");
}

TEST_P(StartTest, NothingStaysOpenHere) {
  const std::vector<std::string> before = openDescriptors();
  endOf(startShell("exit 0"));
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.directory = "/no/such/directory";
  EXPECT_EQ(refusal("true", &options), ENOENT);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_P(StartTest, TheProgramBeginsInTheDirectory) {
  const TempDir dir;
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.directory = dir.path().c_str();
  EXPECT_EQ(outputOf("pwd -P", options), std::filesystem::canonical(dir.path()).string() + '\n');
}

TEST_P(StartTest, ARelativePathBeginsInTheNewDirectory) {
  const TempDir dir;
  writeFile(dir / "prog", "#!/bin/sh\nexit 4\n");
  std::filesystem::permissions(dir / "prog", std::filesystem::perms(0755));
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.directory = dir.path().c_str();
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsynEx("./prog", &options, &process), 1);
  EXPECT_EQ(endOf(process), (End{4, 0}));
}

TEST_P(StartTest, TheEnvironmentIsWhatWasGivenOrThisOne) {
  const char* const environment[] = {"KES_TEST_ONE=1", "KES_TEST_TWO=2", nullptr};
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.environment = environment;
  EXPECT_EQ(outputOf("echo $KES_TEST_ONE$KES_TEST_TWO$HOME", options), "12\n");
  ::setenv("KES_TEST_ONE", "inherited", 1);
  EXPECT_EQ(outputOf("echo $KES_TEST_ONE"), "inherited\n");
}

TEST_P(StartTest, AProgramIsSearchedOnThisProcessesPath) {
  const char* const environment[] = {"PATH=/no/such/place", nullptr};
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.environment = environment;
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsynEx("true", &options, &process), 1);
  EXPECT_EQ(endOf(process), (End{0, 0}));
}

TEST_P(StartTest, ArgumentsArriveAsTheyAre) {
  const char* const arguments[] = {"/bin/sh", "-c",   "printf '<%s>' \"$@\"", "name", "a b", "\"quoted\"", "",
                                   "\\",      nullptr};
  const TempDir dir;
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  options.arguments = arguments;
  options.standardOutput = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsynEx(nullptr, &options, &process), 1);
  EXPECT_EQ(endOf(process), (End{0, 0}));
  EXPECT_EQ(readFile(dir / "out"), "<a b><\"quoted\"><><\\>");
  ::close(options.standardOutput);
}

TEST_P(StartTest, ACommandLineIsTakenApartAsEver) {
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsynEx("sh -c \"test \\\"$0\\\" = 'x y'\" \"x y\"", nullptr, &process), 1);
  EXPECT_EQ(endOf(process), (End{0, 0}));
}

TEST_P(StartTest, AFileThatIsNoProgramIsAScript) {
  const TempDir dir;
  writeFile(dir / "script", "exit $(($# + KES_TEST_MORE))\n");
  std::filesystem::permissions(dir / "script", std::filesystem::perms(0755));
  ::setenv("KES_TEST_MORE", "1", 1);
  const char* const environment[] = {"KES_TEST_MORE=5", nullptr};
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  for (const unsigned int expected : {3U, 7U}) {
    KesOsProcess* process = nullptr;
    ASSERT_EQ(KesOsCreateProcessAsynEx((dir / "script one two").c_str(), &options, &process), 1);
    EXPECT_EQ(endOf(process), (End{expected, 0}));
    options.environment = environment;
  }
}

TEST_P(StartTest, AStartThatFailsSaysWhyAndLeavesNothing) {
  const TempDir dir;
  writeFile(dir / "file", "text");
  const std::string file = dir / "file";
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  EXPECT_EQ(refusal("kes-no-such-program", nullptr), ENOENT);
  EXPECT_EQ(refusal("/no/such/program", nullptr), ENOENT);
  EXPECT_EQ(refusal("", nullptr), ENOENT);
  EXPECT_EQ(refusal(file.c_str(), nullptr), EACCES);
  EXPECT_EQ(refusal((file + "/below").c_str(), nullptr), ENOTDIR);
  options.directory = "/no/such/directory";
  EXPECT_EQ(refusal("true", &options), ENOENT);
  options.directory = file.c_str();
  EXPECT_EQ(refusal("true", &options), ENOTDIR);
  options.directory = nullptr;
  options.standardError = 999;
  EXPECT_EQ(refusal("true", &options), EBADF);
  options.standardError = -1;
  const char* const environment[] = {nullptr};
  options.environment = environment;
  EXPECT_EQ(refusal(file.c_str(), &options), EACCES);
}

TEST_P(StartTest, NoExitHandlerRunsInAChildThatFails) {
  const ChildResult result = inChild([] {
    std::atexit([] { static_cast<void>(!::write(STDOUT_FILENO, "ended\n", 6)); });
    KesOsProcess* process = nullptr;
    if (KesOsCreateProcessAsynEx("/no/such/program", nullptr, &process) != 0) return 1;
    std::exit(0);
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, "ended\n") << "once";
}

TEST_P(StartTest, WithoutRoomForAChildThatIsSaid) {
  const Refuse noFork(Call::fork, EAGAIN);
  const Refuse noPipe(Call::pipe, EMFILE, once);
  const bool shares = GetParam() && !isSanitized;  // with a sanitizer no child does
  EXPECT_EQ(refusal("true", nullptr), shares ? 0 : EMFILE);
  EXPECT_EQ(refusal("true", nullptr), shares ? 0 : EAGAIN);
}

TEST_P(StartTest, TheSignalMaskIsThatOfTheStartOfThisProcess) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  EXPECT_EQ(endOf(startShell("kill -USR1 $$; exit 0")), (End{0, SIGUSR1}));
}

TEST(StartOptionsTest, OptionsOfAnotherVersionAreTakenWhenTheyAskForNothingUnknown) {
  struct Newer {
    KesOsProcessOptions known = KESOS_PROCESS_OPTIONS;
    void* unknown = nullptr;
  } newer;
  newer.known.size = sizeof newer;
  EXPECT_EQ(refusal("true", &newer.known), 0);
  newer.unknown = &newer;
  EXPECT_EQ(refusal("true", &newer.known), E2BIG);
  newer.known.size = sizeof(KesOsProcessOptions) - 8;
  EXPECT_EQ(refusal("true", &newer.known), EINVAL);
  newer.known.size = 0;
  EXPECT_EQ(refusal("true", &newer.known), EINVAL);
}

TEST(StartOptionsTest, EitherACommandLineOrArgumentsAreGiven) {
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  EXPECT_EQ(refusal(nullptr, nullptr), EINVAL);
  EXPECT_EQ(refusal(nullptr, &options), EINVAL);
  const char* const arguments[] = {"true", nullptr};
  options.arguments = arguments;
  EXPECT_EQ(refusal("true", &options), EINVAL);
  options.arguments = arguments + 1;
  EXPECT_EQ(refusal(nullptr, &options), EINVAL) << "there is no program";
  EXPECT_EQ(KesOsCreateProcessAsynEx("true", nullptr, nullptr), 0);
  EXPECT_EQ(errno, EFAULT);
}

TEST(StartOptionsTest, ALineOfTooManyArgumentsIsRefused) {
  std::string line = "true";
  for (int count = 0; count < 5000; ++count) line += " x";
  EXPECT_EQ(refusal(line.c_str(), nullptr), E2BIG);
}

TEST(StartOptionsTest, NoHandleIsAnAnswer) {
  EXPECT_EQ(KesOsProcessId(nullptr), 0);
  EXPECT_EQ(KesOsProcessClose(nullptr), 0);
  EXPECT_EQ(KesOsProcessWaitEx(nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(errno, EINVAL);
}

TEST(StartOptionsTest, AHandleOfThePlainCallIsAskedTheSame) {
  KesOsProcess* process = nullptr;
  ASSERT_EQ(KesOsCreateProcessAsyn("sh -c \"kill -9 $$\"", 0, &process), 1);
  const pid_t id = KesOsProcessId(process);
  EXPECT_GT(id, 0);
  EXPECT_EQ(endOf(process), (End{0, SIGKILL}));
}

}  // namespace
