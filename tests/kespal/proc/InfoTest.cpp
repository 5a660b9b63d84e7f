#include "kespal/proc/Info.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "kespal/error/DynError.h"
#include "kespal/error/OsError.h"
#include "support/TempDir.h"

namespace {
/// What readlink() is made to answer; the real one otherwise.
std::size_t g_linkLength = 0;
int g_linkError = 0;
/// The file that is opened in the place of this process's command name, unless empty.
std::string g_commandName;
}  // namespace

extern "C" ssize_t readlink(const char* path, char* buffer, std::size_t size) noexcept {
  if (g_linkError != 0) {
    errno = g_linkError;
    return -1;
  }
  if (g_linkLength != 0) {
    std::memset(buffer, 'x', std::min(size, g_linkLength));
    return static_cast<ssize_t>(std::min(size, g_linkLength));
  }
  static const auto real = reinterpret_cast<decltype(&::readlink)>(::dlsym(RTLD_NEXT, "readlink"));
  return real(path, buffer, size);
}

extern "C" int open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
  va_end(arguments);
  const bool isReplaced = !g_commandName.empty() && path == "/proc/" + std::to_string(::getpid()) + "/comm";
  static const auto real = reinterpret_cast<decltype(&::open)>(::dlsym(RTLD_NEXT, "open"));
  return real(isReplaced ? g_commandName.c_str() : path, flags, mode);
}

namespace kes::proc {
namespace {

TEST(ProcInfoTest, ExeIsThePathOfTheRunningProgram) {
  EXPECT_EQ(static_cast<std::string>(Info::exe()), std::filesystem::read_symlink("/proc/self/exe").string());
}

bool hasEndedFirstThread() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("State:\tZ")) return true;
  }
  return false;
}

TEST(ProcInfoTest, ExeIsToldAlsoWhenTheFirstThreadHasEnded) {
  const std::string expected = std::filesystem::read_symlink("/proc/self/exe").string();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(60);
    std::thread([&expected] {
      while (!hasEndedFirstThread()) std::this_thread::yield();
      try {
        ::_exit(static_cast<std::string>(Info::exe()) == expected ? 0 : 1);
      } catch (const OsError&) {
        ::_exit(2);
      }
    }).detach();
    ::syscall(SYS_exit, 0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

TEST(ProcInfoTest, AnExecutablePathThatJustFitsIsGivenWhole) {
  g_linkLength = 1023;
  EXPECT_EQ(Info::exe().size(), 1023U);
}

TEST(ProcInfoTest, AnExecutablePathThatIsTooLargeRaisesDynErrorThatSaysHowMuchIsNeeded) {
  g_linkLength = 1024;
  try {
    (void)Info::exe();
    FAIL();
  } catch (const DynError& error) {
    EXPECT_EQ(error.text(), "Executable path too large. Got: 1024 bytes, need 1025 bytes.");
    EXPECT_STREQ(error.file(), "src/os/linux/proc/Info");
    EXPECT_EQ(error.line(), 97);
    EXPECT_STREQ(error.function(), "exe");
  }
}

TEST(ProcInfoTest, AnExecutablePathThatTheSystemDoesNotTellRaisesOsError) {
  g_linkError = EACCES;
  try {
    (void)Info::exe();
    FAIL();
  } catch (const OsError& error) {
    EXPECT_EQ(error.errnum(), EACCES);
    EXPECT_STREQ(error.function(), "exe");
  }
}

TEST(ProcInfoTest, RunningFindsThisProcessByItsCommandName) {
  ::prctl(PR_SET_NAME, "kes-info-probe");
  EXPECT_TRUE(Info::running("kes-info-probe").contains(::getpid()));
}

TEST(ProcInfoTest, RunningComparesTheFirstFifteenBytesOfALongName) {
  ::prctl(PR_SET_NAME, "kes-fifteen-abc");
  EXPECT_TRUE(Info::running("kes-fifteen-abcdefgh").contains(::getpid()));
  EXPECT_FALSE(Info::running("kes-fifteen-ab").contains(::getpid()));
}

TEST(ProcInfoTest, RunningComparesNoMoreOfTheLongerNameThatTheKernelTellsOfItsWorkers) {
  const test::TempDir directory;
  test::writeFile(directory / "comm", "kworker/u8:2-events_unbound\n");
  g_commandName = directory / "comm";
  EXPECT_TRUE(Info::running("kworker/u8:2-events_unbound").contains(::getpid()));
  EXPECT_TRUE(Info::running("kworker/u8:2-ev").contains(::getpid()));
  EXPECT_FALSE(Info::running("kworker/u8:2").contains(::getpid()));
  g_commandName.clear();
}

TEST(ProcInfoTest, RunningFindsANameThatHoldsBlanks) {
  ::prctl(PR_SET_NAME, "kes (a b) c");
  EXPECT_TRUE(Info::running("kes (a b) c").contains(::getpid()));
}

TEST(ProcInfoTest, RunningFindsNothingForAnUnknownOrEmptyName) {
  EXPECT_TRUE(Info::running("kes-nobody-here").empty());
  EXPECT_TRUE(Info::running("").empty());
}

}  // namespace
}  // namespace kes::proc
