#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "Calls.h"
#include "calls/Records.h"

namespace loader {

namespace {

/// The status has the number of the signal that ended or stopped a child, and how it goes on looks otherwise.
int macStatus(int host) {
  constexpr int macContinue = 19, stopped = 0x7F;
  if (WIFCONTINUED(host)) return macContinue << 8 | stopped;
  if (WIFSTOPPED(host)) return macSignal(WSTOPSIG(host)) << 8 | stopped;
  if (WIFSIGNALED(host)) return (host & ~0x7F) | macSignal(WTERMSIG(host));
  return host;
}

struct Flag {
  int mac, host;
};
constexpr Flag waitFlags[] = {{0x1, WNOHANG},  {0x2, WUNTRACED},   {0x4, WEXITED},
                              {0x8, WSTOPPED}, {0x10, WCONTINUED}, {0x20, WNOWAIT}};
int hostWaitFlags(int mac) {
  int host = 0;
  for (const Flag& flag : waitFlags) {
    if ((mac & flag.mac) != 0) host |= flag.host;
  }
  return host;
}

pid_t waitFor(pid_t process, int* status, int options) {
  int host = 0;
  const pid_t found = ::waitpid(process, &host, hostWaitFlags(options));
  if (found > 0 && status != nullptr) *status = macStatus(host);
  return found;
}
pid_t waitForAny(int* status) { return waitFor(-1, status, 0); }

int waitForState(int type, id_t id, mac::SignalInfo* info, int options) {
  constexpr idtype_t types[] = {P_ALL, P_PID, P_PGID};
  siginfo_t host{};
  const int result = ::waitid(types[type], id, &host, hostWaitFlags(options));
  if (result != 0 || info == nullptr) return result;
  *info = {};
  if (host.si_pid == 0) return result;
  const bool isNumbered = host.si_code == CLD_EXITED;
  info->signal = macSignal(SIGCHLD);
  info->code = host.si_code;
  info->process = host.si_pid;
  info->user = host.si_uid;
  info->status = isNumbered ? host.si_status : macSignal(host.si_status);
  return result;
}

/// What starts a file that this system would not: the loader itself, as it was started.
std::vector<char*> startedByLoader(const char* path, char* const* arguments) {
  std::vector<char*> words(program.loader.begin(), program.loader.end());
  words.push_back(const_cast<char*>(path));
  while (*arguments != nullptr && *++arguments != nullptr) words.push_back(*arguments);
  words.push_back(nullptr);
  return words;
}

bool isMachO(const char* path) {
  constexpr std::uint32_t thin = 0xFEEDFACF, fat = 0xBEBAFECA;
  std::uint32_t magic = 0;
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool isRead = ::read(file, &magic, sizeof magic) == sizeof magic;
  ::close(file);
  return isRead && (magic == thin || magic == fat);
}

int execute(const char* path, char* const* arguments, char* const* environment) {
  if (!isMachO(path)) return ::execve(path, arguments, environment);
  const std::vector<char*> words = startedByLoader(path, arguments);
  return ::execve(words[0], words.data(), environment);
}
int executeHere(const char* path, char* const* arguments) { return execute(path, arguments, environ); }
int executeFound(const char* file, char* const* arguments) {
  return isMachO(file) ? executeHere(file, arguments) : ::execvp(file, arguments);
}

int useOf(int whose, rusage* use) {
  const int result = ::getrusage(static_cast<__rusage_who>(whose), use);
  use->ru_maxrss *= 1024;  // bytes over there
  return result;
}

const Call calls[] = {
    // What tests ask of Linux itself.
    {"prctl", ::prctl},
    {"setresuid", ::setresuid},
    {"setresgid", ::setresgid},
    {"unshare", ::unshare},
    // The rest is the platform's.
    {"waitpid", waitFor},
    {"wait", waitForAny},
    {"waitid", waitForState},
    {"execve", execute},
    {"execv", executeHere},
    {"execvp", executeFound},
    {"popen", ::popen},
    {"pclose", ::pclose},
    {"getrusage", useOf},
    {"getpriority", ::getpriority},
    {"setpriority", ::setpriority},
    {"nice", ::nice},
};

}  // namespace

std::span<const Call> childCalls() { return calls; }

}  // namespace loader
