#include "EventLoop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>

namespace kes::driver {
namespace {

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) fail("epoll_create1");
}

void EventLoop::watch(int fd, Handler readable) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
  const auto index = static_cast<std::size_t>(fd);
  if (index >= handlers_.size()) handlers_.resize(index + 1);
  handlers_[index] = std::make_shared<Handler>(std::move(readable));
}

void EventLoop::forget(int fd) {
  const auto index = static_cast<std::size_t>(fd);
  if (index >= handlers_.size() || !handlers_[index]) return;
  handlers_[index].reset();
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::at(Clock::time_point when, Handler action) { actions_.emplace(when, std::move(action)); }

void EventLoop::run() {
  std::array<epoll_event, 64> events;
  running_ = true;
  while (running_) {
    const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeout());
    if (count == -1 && errno != EINTR) fail("epoll_wait");
    for (int i = 0; i < count && running_; ++i) dispatch(events[static_cast<std::size_t>(i)].data.fd);
    if (running_) runDueActions();
  }
}

// In milliseconds as epoll counts them, rounded up: waking early would only wake again.
int EventLoop::timeout() const {
  if (actions_.empty()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(actions_.begin()->first - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
}

void EventLoop::dispatch(int fd) {
  const std::shared_ptr<Handler> handler = handlers_[static_cast<std::size_t>(fd)];
  if (handler) (*handler)();  // unless a handler before it in this round removed it
}

void EventLoop::runDueActions() {
  if (actions_.empty()) return;
  const auto now = Clock::now();
  while (running_ && !actions_.empty() && actions_.begin()->first <= now) {
    const Handler action = std::move(actions_.extract(actions_.begin()).mapped());
    action();
  }
}

}  // namespace kes::driver
