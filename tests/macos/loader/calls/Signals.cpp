#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Calls.h"

namespace loader {

namespace {

/// This system's number of each signal that macOS has, in its order from 1; 0 where there is none.
constexpr int hostSignals[] = {SIGHUP,  SIGINT,    SIGQUIT, SIGILL,   SIGTRAP, SIGABRT, 0,       SIGFPE,
                               SIGKILL, SIGBUS,    SIGSEGV, SIGSYS,   SIGPIPE, SIGALRM, SIGTERM, SIGURG,
                               SIGSTOP, SIGTSTP,   SIGCONT, SIGCHLD,  SIGTTIN, SIGTTOU, SIGIO,   SIGXCPU,
                               SIGXFSZ, SIGVTALRM, SIGPROF, SIGWINCH, 0,       SIGUSR1, SIGUSR2};
constexpr int signalCount = 31;
static_assert(std::size(hostSignals) == signalCount);

int macSignal(int host) {
  for (int mac = 1; mac <= signalCount; ++mac) {
    if (hostSignals[mac - 1] == host) return mac;
  }
  return host;
}

/// A set is a word over there, a bit for each signal.
sigset_t hostSet(std::uint32_t mac) {
  sigset_t host;
  sigemptyset(&host);
  for (int number = 1; number <= signalCount; ++number) {
    if ((mac >> (number - 1) & 1) != 0 && hostSignal(number) != 0) sigaddset(&host, hostSignal(number));
  }
  return host;
}
std::uint32_t macSet(const sigset_t& host) {
  std::uint32_t mac = 0;
  for (int number = 1; number <= signalCount; ++number) {
    if (hostSignal(number) != 0 && sigismember(&host, hostSignal(number)) == 1) mac |= 1U << (number - 1);
  }
  return mac;
}

int changeMask(int how, const std::uint32_t* mac, std::uint32_t* old) {
  constexpr int hostHow[] = {-1, SIG_BLOCK, SIG_UNBLOCK, SIG_SETMASK};
  sigset_t change, before;
  if (mac != nullptr) {
    if (how < 1 || how > 3) return EINVAL;
    change = hostSet(*mac);
  }
  const int result = ::pthread_sigmask(mac == nullptr ? SIG_BLOCK : hostHow[how],
                                       mac == nullptr ? nullptr : &change, &before);
  if (result == 0 && old != nullptr) *old = macSet(before);
  return macError(result);
}
int changeProcessMask(int how, const std::uint32_t* mac, std::uint32_t* old) {
  errno = hostError(changeMask(how, mac, old));
  return errno == 0 ? 0 : -1;
}

// Handlers get the number that they know.
using SignalHandler = void (*)(int);
SignalHandler programHandlers[signalCount + 1];
void deliver(int host) {
  const int mac = macSignal(host);
  if (programHandlers[mac] != nullptr) programHandlers[mac](mac);
}

SignalHandler setHandler(int mac, SignalHandler handler) {
  const bool own = handler != SIG_DFL && handler != SIG_IGN;
  const SignalHandler before = programHandlers[mac];
  programHandlers[mac] = own ? handler : nullptr;
  const SignalHandler host = ::signal(hostSignal(mac), own ? deliver : handler);
  return host == deliver ? before : host;
}

struct MacAction {
  SignalHandler handler;
  std::uint32_t mask;
  int flags;
};
struct Flag {
  int mac;
  unsigned host;
};
constexpr Flag actionFlags[] = {{0x1, SA_ONSTACK},   {0x2, SA_RESTART},  {0x4, SA_RESETHAND},
                                {0x8, SA_NOCLDSTOP}, {0x10, SA_NODEFER}, {0x20, SA_NOCLDWAIT}};

struct sigaction hostAction(const MacAction& mac) {
  struct sigaction host {};
  host.sa_handler = mac.handler == SIG_DFL || mac.handler == SIG_IGN ? mac.handler : deliver;
  host.sa_mask = hostSet(mac.mask);
  for (const Flag& flag : actionFlags) {
    if ((mac.flags & flag.mac) != 0) host.sa_flags |= static_cast<int>(flag.host);
  }
  return host;
}
MacAction macAction(const struct sigaction& host, SignalHandler handler) {
  MacAction mac{host.sa_handler == deliver ? handler : host.sa_handler, macSet(host.sa_mask), 0};
  for (const Flag& flag : actionFlags) {
    if ((static_cast<unsigned>(host.sa_flags) & flag.host) != 0) mac.flags |= flag.mac;
  }
  return mac;
}

int setAction(int mac, const MacAction* action, MacAction* old) {
  if (mac < 1 || mac > signalCount || hostSignal(mac) == 0) {
    errno = EINVAL;
    return -1;
  }
  const SignalHandler before = programHandlers[mac];
  struct sigaction host {
  }, hostOld{};
  if (action != nullptr) {
    host = hostAction(*action);
    if (host.sa_handler == deliver) programHandlers[mac] = action->handler;
  }
  const int result = ::sigaction(hostSignal(mac), action != nullptr ? &host : nullptr, &hostOld);
  if (result == 0 && old != nullptr) *old = macAction(hostOld, before);
  return result;
}

int waitForSignal(const std::uint32_t* set, int* mac) {
  const sigset_t hosts = hostSet(*set);
  int host = 0;
  const int result = ::sigwait(&hosts, &host);
  if (result == 0) *mac = macSignal(host);
  return macError(result);
}

int pendingSignals(std::uint32_t* mac) {
  sigset_t host;
  const int result = ::sigpending(&host);
  if (result == 0) *mac = macSet(host);
  return result;
}

char* signalText(int mac) { return ::strsignal(hostSignal(mac)); }

/// A status of wait() has the number of the signal that ended or stopped the process.
int macStatus(int host) {
  if (WIFSIGNALED(host)) return (host & ~0x7F) | macSignal(WTERMSIG(host));
  if (WIFSTOPPED(host)) return macSignal(WSTOPSIG(host)) << 8 | 0x7F;
  return host;
}
pid_t waitFor(pid_t process, int* status, int options) {
  int host = 0;
  const pid_t found = ::waitpid(process, &host, options);
  if (found > 0 && status != nullptr) *status = macStatus(host);
  return found;
}
pid_t waitForAny(int* status) { return waitFor(-1, status, 0); }

int killProcess(pid_t process, int mac) { return ::kill(process, hostSignal(mac)); }
int raiseSignal(int mac) { return ::raise(hostSignal(mac)); }

const Call calls[] = {
    {"pthread_sigmask", changeMask},
    {"sigprocmask", changeProcessMask},
    {"sigaction", setAction},
    {"sigpending", pendingSignals},
    {"sigwait", waitForSignal},
    {"signal", setHandler},
    {"strsignal", signalText},
    {"kill", killProcess},
    {"raise", raiseSignal},
    {"waitpid", waitFor},
    {"wait", waitForAny},
};

}  // namespace

int hostSignal(int mac) { return mac >= 1 && mac <= signalCount ? hostSignals[mac - 1] : mac; }

std::span<const Call> signalCalls() { return calls; }

}  // namespace loader
