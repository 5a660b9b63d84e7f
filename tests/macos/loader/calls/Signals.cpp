#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "Calls.h"
#include "calls/Records.h"

namespace loader {

namespace {

/// This system's number of each signal that macOS has, in its order from 1. Two are not known here (SIGEMT
/// and SIGINFO); for them serve two that nobody knows over there.
constexpr int hostSignals[] = {SIGHUP,  SIGINT,    SIGQUIT, SIGILL,   SIGTRAP, SIGABRT, SIGSTKFLT, SIGFPE,
                               SIGKILL, SIGBUS,    SIGSEGV, SIGSYS,   SIGPIPE, SIGALRM, SIGTERM,   SIGURG,
                               SIGSTOP, SIGTSTP,   SIGCONT, SIGCHLD,  SIGTTIN, SIGTTOU, SIGIO,     SIGXCPU,
                               SIGXFSZ, SIGVTALRM, SIGPROF, SIGWINCH, SIGPWR,  SIGUSR1, SIGUSR2};
constexpr int signalCount = 31, macKill = 9, macStop = 17;
static_assert(std::size(hostSignals) == signalCount);

/// A set is a word over there, a bit for each signal.
sigset_t hostSet(std::uint32_t mac) {
  sigset_t host;
  sigemptyset(&host);
  for (int number = 1; number <= signalCount; ++number) {
    if ((mac >> (number - 1) & 1) != 0) sigaddset(&host, hostSignal(number));
  }
  return host;
}
std::uint32_t macSet(const sigset_t& host) {
  std::uint32_t mac = 0;
  for (int number = 1; number <= signalCount; ++number) {
    if (sigismember(&host, hostSignal(number)) == 1) mac |= 1U << (number - 1);
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

// Handlers get the number that they know, and what else they may ask for. Both kinds share a word over there,
// too.
using SignalHandler = void (*)(int);
using InfoHandler = void (*)(int, mac::SignalInfo*, void*);
constexpr int macInfo = 0x40;
struct MacAction {
  union {
    SignalHandler handler;
    InfoHandler infoHandler;
  };
  std::uint32_t mask;
  int flags;
};
MacAction programActions[signalCount + 1];

mac::SignalInfo macInfoOf(const siginfo_t& host) {
  constexpr int macByUser = 0x10001;
  mac::SignalInfo info{};
  info.signal = macSignal(host.si_signo);
  info.code = host.si_code == SI_USER || host.si_code == SI_TKILL ? macByUser : host.si_code;
  info.process = host.si_pid;
  info.user = host.si_uid;
  if (host.si_signo == SIGCHLD) info.status = host.si_status;
  if (host.si_signo == SIGSEGV || host.si_signo == SIGBUS) info.address = host.si_addr;
  return info;
}

void deliver(int host, siginfo_t* hostInfo, void* context) {
  const int number = macSignal(host);
  const MacAction action = programActions[number];
  if (action.handler == nullptr) return;
  if ((action.flags & macInfo) == 0) return action.handler(number);
  mac::SignalInfo info = macInfoOf(*hostInfo);
  action.infoHandler(number, &info, context);
}

bool isOwn(SignalHandler handler) { return handler != SIG_DFL && handler != SIG_IGN && handler != SIG_ERR; }

struct Flag {
  int mac;
  unsigned host;
};
constexpr Flag actionFlags[] = {{0x1, SA_ONSTACK},   {0x2, SA_RESTART},  {0x4, SA_RESETHAND},
                                {0x8, SA_NOCLDSTOP}, {0x10, SA_NODEFER}, {0x20, SA_NOCLDWAIT}};

struct sigaction hostAction(const MacAction& mac) {
  struct sigaction host {};
  if (isOwn(mac.handler)) {
    host.sa_sigaction = deliver;
    host.sa_flags = SA_SIGINFO;
  } else {
    host.sa_handler = mac.handler;
  }
  host.sa_mask = hostSet(mac.mask);
  for (const Flag& flag : actionFlags) {
    if ((mac.flags & flag.mac) != 0) host.sa_flags |= static_cast<int>(flag.host);
  }
  return host;
}
/// What the program set, as far as the system still has that.
MacAction macAction(const struct sigaction& host, const MacAction& set) {
  const bool isDelivered = (host.sa_flags & SA_SIGINFO) != 0 && host.sa_sigaction == deliver;
  MacAction mac{{isDelivered ? set.handler : host.sa_handler}, macSet(host.sa_mask), 0};
  for (const Flag& flag : actionFlags) {
    if ((static_cast<unsigned>(host.sa_flags) & flag.host) != 0) mac.flags |= flag.mac;
  }
  if (!isDelivered || (set.flags & macInfo) != 0) mac.flags |= set.flags & macInfo;
  return mac;
}

int setAction(int mac, const MacAction* action, MacAction* old) {
  if (mac < 1 || mac > signalCount) {
    errno = EINVAL;
    return -1;
  }
  const MacAction before = programActions[mac];
  struct sigaction host {
  }, hostOld{};
  if (action != nullptr) {
    host = hostAction(*action);
    if ((mac == macKill || mac == macStop) && isOwn(action->handler)) {
      errno = EINVAL;
      return -1;
    }
    programActions[mac] = *action;
  }
  const int result = ::sigaction(hostSignal(mac), action != nullptr ? &host : nullptr, &hostOld);
  if (result != 0) programActions[mac] = before;
  if (result == 0 && old != nullptr) *old = macAction(hostOld, before);
  return result;
}

SignalHandler setHandler(int mac, SignalHandler handler) {
  constexpr int macRestart = 0x2;
  const MacAction action{{handler}, 0, macRestart};
  MacAction old{};
  return setAction(mac, &action, &old) == 0 ? old.handler : SIG_ERR;
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

const char* signalText(int mac) {
  static thread_local char unknown[32];
  if (hostSignal(mac) > 0) return ::strsignal(hostSignal(mac));
  std::snprintf(unknown, sizeof unknown, "Unknown signal: %d", mac);
  return unknown;
}

int killProcess(pid_t process, int mac) { return ::kill(process, hostSignal(mac)); }
int raiseSignal(int mac) { return ::raise(hostSignal(mac)); }

const Call calls[] = {
    {"pthread_sigmask", changeMask}, {"sigprocmask", changeProcessMask},
    {"sigaction", setAction},        {"sigpending", pendingSignals},
    {"sigwait", waitForSignal},      {"signal", setHandler},
    {"strsignal", signalText},       {"kill", killProcess},
    {"raise", raiseSignal},
};

}  // namespace

int macSignal(int host) {
  for (int mac = 1; mac <= signalCount; ++mac) {
    if (hostSignals[mac - 1] == host) return mac;
  }
  return host;
}

int hostSignal(int mac) {
  if (mac < 0 || mac > signalCount) return -1;
  return mac == 0 ? 0 : hostSignals[mac - 1];
}

std::span<const Call> signalCalls() { return calls; }

}  // namespace loader
