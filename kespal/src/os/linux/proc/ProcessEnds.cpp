#include "os/ProcessEnds.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "kespal/error/OsError.h"
#include "sys/Retry.h"

namespace kes::os {

namespace {

/// Stands for the interruption among the ids of processes.
constexpr pid_t noProcess = 0;

int add(int queue, int fd, std::uint32_t events, pid_t pid) noexcept {
  ::epoll_event event{};
  event.events = events;
  event.data.u64 = static_cast<std::uint64_t>(pid);
  return ::epoll_ctl(queue, EPOLL_CTL_ADD, fd, &event);
}

}  // namespace

ProcessEnds::ProcessEnds()
    : queue_(check(KES_HERE, ::epoll_create1(EPOLL_CLOEXEC))),
      interruption_(check(KES_HERE, ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
  check(KES_HERE, add(queue_.get(), interruption_.get(), EPOLLIN, noProcess));
}

// The C library has a function for this call since 2.36 only. The descriptor is close-on-exec. A forked child
// has a copy of it, by which it stays in the queue when it is closed here: hence told only once.
bool ProcessEnds::watch(pid_t pid, sys::Descriptor& handle) noexcept {
  handle.reset(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<long>(pid), 0L)));
  return handle && add(queue_.get(), handle.get(), EPOLLIN | EPOLLONESHOT, pid) != -1;
}

pid_t ProcessEnds::next(int milliseconds) {
  ::epoll_event event{};
  const int count = sys::retry([&] { return ::epoll_wait(queue_.get(), &event, 1, milliseconds); });
  if (count <= 0) return count;
  const auto pid = static_cast<pid_t>(event.data.u64);
  std::uint64_t interruptions = 0;
  if (pid == noProcess) (void)!::read(interruption_.get(), &interruptions, sizeof interruptions);
  return pid;
}

void ProcessEnds::interrupt() noexcept {
  constexpr std::uint64_t once = 1;
  (void)!::write(interruption_.get(), &once, sizeof once);
}

}  // namespace kes::os
