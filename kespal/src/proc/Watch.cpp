#include "proc/Watch.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "os/ProcessEnds.h"
#include "sys/Retry.h"

namespace kes::proc {

namespace {

/// Waits for any child of the process.
class EveryChild : public Watch {
 public:
  int look(siginfo_t& ended) override { return ::waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT); }
  bool takesStrangers() const noexcept override { return true; }
  void add(pid_t, sys::Descriptor&, bool) noexcept override {}
  pid_t interrupt() override {
    const pid_t sentinel = ::fork();
    if (sentinel == 0) ::_exit(0);
    return sentinel;
  }
};

/// Waits for those children that were put under watch. When that is not enough for one, all are asked for
/// from time to time, until no child runs any more.
class RegisteredChildren : public Watch {
 public:
  int look(siginfo_t& ended) override {
    const pid_t pid = ends_.next(missesSome_ ? interval : forEver);
    if (pid == -1) waitBlindly();
    if (pid <= 0) return 0;
    const auto ask = [&] {
      return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
    };
    const int result = sys::retry(ask);
    // The queue tells of an end only once, even if that cannot be seen yet, as a debugger gets it first.
    if (result == -1 || ended.si_pid == 0) missesSome_ = true;
    return result;
  }
  bool takesStrangers() const noexcept override { return false; }
  void add(pid_t pid, sys::Descriptor& handle, bool alone) noexcept override {
    if (alone) missesSome_ = false;
    if (ends_.watch(pid, handle)) return;
    missesSome_ = true;
    ends_.interrupt();
  }
  pid_t interrupt() override {
    ends_.interrupt();
    return -1;
  }

 private:
  static constexpr int forEver = -1, interval = 20;  // milliseconds

  /// Somebody has closed descriptors that are not his.
  void waitBlindly() {
    missesSome_ = true;
    ::poll(nullptr, 0, interval);
  }

  os::ProcessEnds ends_;
  std::atomic<bool> missesSome_{false};
};

}  // namespace

std::unique_ptr<Watch> Watch::make(Reaping reaping) {
  if (reaping == Reaping::Registered) return std::make_unique<RegisteredChildren>();
  return std::make_unique<EveryChild>();
}

}  // namespace kes::proc
