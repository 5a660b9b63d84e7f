#include "kesos/processes.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "command_line.h"
#include "kespal/signal/Set.h"
#include "sys/Retry.h"

using kes::kesos::CommandLine;

struct KesOsProcess {
  pid_t pid;   ///< 0 once the process has been reaped
  int status;  ///< as waitpid() reports it
};

namespace {

pid_t waitFor(pid_t pid, int& status, int options) {
  return kes::sys::retry([&] { return ::waitpid(pid, &status, options); });
}

/// Whether the process has ended, which is noted then.
bool hasEnded(KesOsProcess& process) {
  if (waitFor(process.pid, process.status, WNOHANG) != process.pid) return false;
  process.pid = 0;
  return true;
}

// After a fork, the child has only calls that are safe in a process whose other threads are gone: the
// command line was taken apart before.

/// Makes this process the program; returns when that is not possible.
void become(const CommandLine& commandLine) {
  if (!commandLine) return;
  ::sigprocmask(SIG_SETMASK, &kes::signal::Set::m_original.native(), nullptr);
  ::execvp(commandLine.get()[0], commandLine.get() + 1);
}

[[noreturn]] void becomeDetached(const CommandLine& commandLine) {
  ::setsid();
  const pid_t pid = ::fork();
  if (pid != 0) ::_exit(pid > 0 ? 0 : 127);
  become(commandLine);
  ::_exit(127);
}

int startDetached(const CommandLine& commandLine) {
  const pid_t pid = ::fork();
  if (pid == 0) becomeDetached(commandLine);
  int status = -1;
  return pid > 0 && waitFor(pid, status, 0) == pid && status == 0 ? 1 : 0;
}

int startChild(const CommandLine& commandLine, KesOsProcess** out) {
  *out = nullptr;
  std::unique_ptr<KesOsProcess> process(new (std::nothrow) KesOsProcess{});
  if (process == nullptr) return 0;
  std::fflush(nullptr);  // what is buffered would be written by exit() in the child as well
  process->pid = ::fork();
  if (process->pid == 0) {
    become(commandLine);
    std::exit(127);
  }
  if (process->pid < 0) return 0;
  *out = process.release();
  return 1;
}

}  // namespace

int KesOsCreateProcessAsyn(const char* cmd, unsigned long /*flags*/, KesOsProcess** out) {
  const CommandLine commandLine(parseProcessCommandline(cmd));
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

int KesOsCloseHdl(int fd) { return ::close(fd) == 0 ? 1 : 0; }
