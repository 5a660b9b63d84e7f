#include <sys/epoll.h>
#include <sys/event.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {

/// What an event of this system carries: what it is about, and the descriptor that stands for that, which
/// goes with the event.
std::uint64_t pack(const struct kevent& change, int fd) {
  const std::uint64_t isProcess = change.filter == EVFILT_PROC ? 1 : 0;
  return static_cast<std::uint64_t>(fd) << 32 | isProcess << 31 | change.ident;
}

int addTo(int queue, const struct kevent& change, int fd) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLONESHOT;
  event.data.u64 = pack(change, fd);
  return fd == -1 ? -1 : ::epoll_ctl(queue, EPOLL_CTL_ADD, fd, &event);
}

/// Over there the end of a process is no news any more once it is waiting to be reaped.
bool hasEnded(pid_t pid) {
  siginfo_t state{};
  const int result = ::waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT);
  return result == -1 || state.si_pid != 0;
}

int apply(int queue, const struct kevent& change) {
  if (change.filter == EVFILT_USER) {
    // Made when it is triggered: until then it does nothing.
    if (change.fflags != NOTE_TRIGGER) return 0;
    return addTo(queue, change, ::eventfd(1, EFD_CLOEXEC));
  }
  const auto pid = static_cast<pid_t>(change.ident);
  if (hasEnded(pid)) {
    errno = ESRCH;
    return -1;
  }
  return addTo(queue, change, static_cast<int>(::syscall(SYS_pidfd_open, static_cast<long>(pid), 0L)));
}

}  // namespace

int kqueue() { return ::epoll_create1(0); }

int kevent(int queue, const struct kevent* changes, int changeCount, struct kevent* events, int eventCount,
           const timespec* timeout) {
  for (int number = 0; number < changeCount; ++number) {
    if (apply(queue, changes[number]) == -1) return -1;
  }
  if (eventCount == 0) return 0;
  epoll_event event{};
  const auto milliseconds =
      timeout == nullptr ? -1 : static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_nsec / 1'000'000);
  const int count = ::epoll_wait(queue, &event, 1, milliseconds);
  if (count <= 0) return count;
  ::close(static_cast<int>(event.data.u64 >> 32));
  const bool isProcess = (event.data.u64 >> 31 & 1) != 0;
  EV_SET(events, event.data.u64 & 0x7FFFFFFF, isProcess ? EVFILT_PROC : EVFILT_USER, EV_ONESHOT,
         isProcess ? NOTE_EXIT : 0, 0, nullptr);
  return 1;
}
