#include <pthread.h>
#include <signal.h>
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

int hostSignal(int mac) { return mac >= 1 && mac <= signalCount ? hostSignals[mac - 1] : mac; }
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

int killProcess(pid_t process, int mac) { return ::kill(process, hostSignal(mac)); }
int killThread(pthread_t thread, int mac) { return macError(::pthread_kill(thread, hostSignal(mac))); }
int raiseSignal(int mac) { return ::raise(hostSignal(mac)); }

const Call calls[] = {
    {"pthread_sigmask", changeMask}, {"sigprocmask", changeProcessMask}, {"signal", setHandler},
    {"kill", killProcess},           {"pthread_kill", killThread},       {"raise", raiseSignal},
};

}  // namespace

std::span<const Call> signalCalls() { return calls; }

}  // namespace loader
