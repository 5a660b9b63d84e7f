#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "sys/Owner.h"

namespace kes::driver {

/// Waits for readable descriptors and for moments, on one thread, and calls what belongs to them. Handlers
/// may add and remove handlers, their own included. Throws std::system_error where the system refuses.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::function<void()>;

  EventLoop();

  /// Calls `readable` whenever the descriptor can be read or has come to its end.
  void watch(int fd, Handler readable);
  /// Ends that; to be called before the descriptor is closed.
  void forget(int fd);
  /// Calls `action` once, at `when` or soon after.
  void at(Clock::time_point when, Handler action);

  /// Runs until stop() is called by a handler.
  void run();
  void stop() { running_ = false; }

 private:
  int timeout() const;
  void dispatch(int fd);
  void runDueActions();

  sys::Descriptor epoll_;
  // By descriptor. Shared, so that a handler which removes itself lives until it returns.
  std::vector<std::shared_ptr<Handler>> handlers_;
  std::multimap<Clock::time_point, Handler> actions_;
  bool running_ = false;
};

}  // namespace kes::driver
