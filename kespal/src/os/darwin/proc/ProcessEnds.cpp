#include "os/ProcessEnds.h"

#include <fcntl.h>
#include <sys/event.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include "kespal/error/OsError.h"
#include "sys/Retry.h"

namespace kes::os {

namespace {

/// Stands for the interruption among the ids of processes.
constexpr pid_t noProcess = 0;

struct kevent change(pid_t pid, std::int16_t filter, std::uint16_t flags, std::uint32_t what) noexcept {
  struct kevent change {};
  EV_SET(&change, static_cast<std::uintptr_t>(pid), filter, flags, what, 0, nullptr);
  return change;
}

int apply(int queue, const struct kevent* changes, int count) noexcept {
  return ::kevent(queue, changes, count, nullptr, 0, nullptr);
}

/// An event of our own. It stays until it is told.
int trigger(int queue, pid_t pid) noexcept {
  const struct kevent changes[] = {change(pid, EVFILT_USER, EV_ADD | EV_ONESHOT, 0),
                                   change(pid, EVFILT_USER, 0, NOTE_TRIGGER)};
  return apply(queue, changes, 2);
}

bool isReapable(pid_t pid) {
  siginfo_t ended{};
  const auto ask = [&] {
    return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
  };
  return sys::retry(ask) == -1 || ended.si_pid != 0;
}

/// The queue tells of an end a moment before the child can be reaped; longer before, if a debugger has it.
void awaitReapable(pid_t pid) {
  constexpr ::timespec moment{0, 100'000};
  for (int tries = 100; tries > 0 && !isReapable(pid); --tries) ::nanosleep(&moment, nullptr);
}

}  // namespace

// A forked child does not inherit it.
ProcessEnds::ProcessEnds() : queue_(check(KES_HERE, ::kqueue())) {
  check(KES_HERE, ::fcntl(queue_.get(), F_SETFD, FD_CLOEXEC));
}

bool ProcessEnds::watch(pid_t pid, sys::Descriptor&) noexcept {
  const struct kevent end = change(pid, EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT);
  if (apply(queue_.get(), &end, 1) != -1) return true;
  // Of one that has ended already the queue wants to know nothing.
  return errno == ESRCH && trigger(queue_.get(), pid) != -1;
}

pid_t ProcessEnds::next(int milliseconds) {
  const ::timespec span{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
  struct kevent event {};
  const int count = sys::retry(
      [&] { return ::kevent(queue_.get(), nullptr, 0, &event, 1, milliseconds < 0 ? nullptr : &span); });
  if (count <= 0) return count;
  const auto pid = static_cast<pid_t>(event.ident);
  if (pid != noProcess) awaitReapable(pid);
  return pid;
}

void ProcessEnds::interrupt() noexcept { trigger(queue_.get(), noProcess); }

}  // namespace kes::os
