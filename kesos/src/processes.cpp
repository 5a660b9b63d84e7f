#include "kesos/processes.h"

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

#include "command_line.h"
#include "deadline.h"
#include "kespal/os/posix/proc/Start.h"
#include "kespal/signal/Set.h"
#include "limited_waits.h"
#include "paths.h"
#include "process_handle.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

using kes::kesos::CommandLine;

namespace {

pid_t waitFor(pid_t pid, int& status, int options) {
  return kes::sys::retry([&] { return ::waitpid(pid, &status, options); });
}

/// Asks for the child's end, which is noted then. As waitpid() has it: 0 when it runs, -1 with errno.
pid_t askFor(KesOsProcess& process, int options) {
  const pid_t answer = waitFor(process.pid, process.status, options);
  if (answer == process.pid) process.pid = 0;
  return answer;
}

/// Whether the process has ended, which is noted then.
bool hasEnded(KesOsProcess& process) { return askFor(process, WNOHANG) > 0; }

/// Waits for the child's end until the time is over; false with errno.
bool awaitEnd(KesOsProcess& process, unsigned int timeoutMs) {
  if (timeoutMs == kes::kesos::infinite) return askFor(process, 0) > 0;
  const kes::kesos::Deadline end(timeoutMs);
  for (;;) {
    const pid_t answer = askFor(process, WNOHANG);
    if (answer != 0) return answer > 0;
    if (end.isOver()) return kes::kesos::failWith(ETIMEDOUT) != 0;
    kes::os::watchChild(process.pid, end.rest());
  }
}

// Until a child is the program or cannot be, it makes only calls that are safe in a process whose other
// threads are gone, or that shares its memory: the command line was taken apart before.

/// Makes this process the program; returns when that is not possible.
void become(const CommandLine& commandLine) {
  ::sigprocmask(SIG_SETMASK, &kes::signal::Set::m_original.native(), nullptr);
  if (commandLine) ::execvp(commandLine.get()[0], commandLine.get() + 1);
}

std::size_t argumentsOf(const CommandLine& commandLine) {
  std::size_t count = 0;
  while (commandLine && commandLine.get()[count] != nullptr) ++count;
  return count;
}

/// Closes the descriptors that the system lists as this process's; false when it does not list them all.
bool closeListed() {
  const kes::sys::DirStream list(::opendir("/dev/fd"));
  if (!list) return false;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(list.get());
    if (entry == nullptr) return errno == 0;
    const int fd = std::atoi(entry->d_name);  // "." and ".." stand for 0, which is closed anyhow
    if (fd != ::dirfd(list.get())) ::close(fd);
  }
}

void closeAll() {
  ::close(STDIN_FILENO);  // leaves a free descriptor for the list
  if (closeListed()) return;
  const long limit = ::sysconf(_SC_OPEN_MAX);
  const long end = limit > 0 ? limit : 65536;
  for (int fd = STDIN_FILENO + 1; fd < end; ++fd) ::close(fd);
}

/// Ends a child that could not become its program. Exit handlers run in it. What they flush, rewind or reset
/// is the parent's, so it must be out of their reach.
[[noreturn]] void fail() {
  const kes::sys::NoCancel untilExit;  // the parent's thread may have been cancelled before the fork
  closeAll();
  std::exit(127);
}

struct Detached {
  const CommandLine& commandLine;
  bool exists;  ///< a process that nobody waits for
};

void becomeProgram(void* detached) {
  auto& self = *static_cast<Detached*>(detached);
  self.exists = true;
  become(self.commandLine);
}

void detachProgram(void* detached) {
  ::setsid();
  kes::os::startChild(&becomeProgram, nullptr, detached,
                      argumentsOf(static_cast<Detached*>(detached)->commandLine));
}

[[noreturn]] void detachByFork(const CommandLine& commandLine) {
  ::setsid();
  const pid_t pid = ::fork();
  if (pid != 0) ::_exit(pid > 0 ? 0 : 127);
  become(commandLine);
  ::_exit(127);
}

/// Makes a child that makes the program and ends, as that has no parent then that would have to wait for it.
/// Both share this process's memory, or else are plain forks.
int startDetached(const CommandLine& commandLine) {
  const kes::sys::NoCancel untilReaped;  // the child between ends at once
  Detached detached{commandLine, false};
  kes::os::startChild(&detachProgram, nullptr, &detached, argumentsOf(commandLine));
  if (detached.exists) return 1;
  const pid_t pid = ::fork();
  if (pid == 0) detachByFork(commandLine);
  int status = -1;
  return pid > 0 && waitFor(pid, status, 0) == pid && status == 0 ? 1 : 0;
}

/// Stores the handle of the child, if there is one.
int startChild(const CommandLine& commandLine, KesOsProcess** out) {
  std::unique_ptr<KesOsProcess> process(new (std::nothrow) KesOsProcess{});
  if (process == nullptr) return kes::kesos::failWith(ENOMEM);
  const auto becomeIt = [](void* line) { become(*static_cast<const CommandLine*>(line)); };
  const auto becomeItOrFail = [](void* line) {
    become(*static_cast<const CommandLine*>(line));
    fail();
  };
  process->pid = kes::os::startChild(becomeIt, becomeItOrFail, const_cast<CommandLine*>(&commandLine),
                                     argumentsOf(commandLine));
  process->id = process->pid;
  if (process->pid < 0) return 0;
  *out = process.release();
  return 1;
}

}  // namespace

int KesOsCreateProcessAsyn(const char* cmd, unsigned long /*flags*/, KesOsProcess** out) {
  if (out != nullptr) *out = nullptr;
  const CommandLine commandLine(parseProcessCommandline(cmd));
  if (!commandLine && errno == ENOMEM) return 0;
  return out != nullptr ? startChild(commandLine, out) : startDetached(commandLine);
}

int KesOsProcessIsRunning(KesOsProcess* process) {
  if (process == nullptr || process->pid == 0 || hasEnded(*process)) return 0;
  return process->pid > 0 ? 1 : 0;
}

int KesOsProcessWait(KesOsProcess* process, unsigned int* exitCode) {
  if (process == nullptr) return 0;
  const bool reaped = process->pid == 0 || waitFor(process->pid, process->status, 0) == process->pid;
  if (reaped && exitCode != nullptr) *exitCode = (static_cast<unsigned int>(process->status) >> 8U) & 255U;
  delete process;
  return reaped ? 1 : 0;
}

int KesOsTerminateProcess(KesOsProcess* process) {
  if (process == nullptr || process->pid == 0 || hasEnded(*process)) return 0;
  return ::kill(process->pid, SIGTERM) == 0 ? 1 : 0;
}

int KesOsProcessId(const KesOsProcess* process) { return process != nullptr ? process->id : 0; }

int KesOsProcessWaitEx(KesOsProcess* process, unsigned int timeoutMs, unsigned int* exitCode, int* signal) {
  if (process == nullptr) return kes::kesos::failWith(EINVAL);
  if (process->pid != 0 && !awaitEnd(*process, timeoutMs)) return 0;
  const bool signalled = WIFSIGNALED(process->status);
  if (exitCode != nullptr)
    *exitCode = signalled ? 0 : static_cast<unsigned int>(WEXITSTATUS(process->status));
  if (signal != nullptr) *signal = signalled ? WTERMSIG(process->status) : 0;
  return 1;
}

int KesOsProcessClose(KesOsProcess* process) {
  if (process == nullptr) return 0;
  if (process->pid != 0) hasEnded(*process);
  delete process;
  return 1;
}

int KesOsCloseHdl(int fd) { return ::close(fd) == 0 ? 1 : 0; }
