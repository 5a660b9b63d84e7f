#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <span>

#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "support/Eventually.h"
#include "support/Raised.h"

namespace kes::signal {

/// Counts what it is told, and may do something more.
struct Notifier : Handler::INotify {
  explicit Notifier(std::function<void(int)> more = {}) : then(std::move(more)) {}
  void notify(const int& signal, const siginfo_t& info) override {
    const auto bytes = std::as_bytes(std::span(&info, 1));
    allZeros = std::all_of(bytes.begin(), bytes.end(), [](std::byte byte) { return byte == std::byte{0}; });
    last = signal;
    ++count;
    if (then) then(signal);
  }
  /// Waits until it was told that many times.
  bool isTold(int times) const {
    return test::eventually([this, times] { return count == times; });
  }

  std::atomic<int> count{0};
  std::atomic<int> last{0};
  std::atomic<bool> allZeros{false};
  std::function<void(int)> then;
};

/// Every thread blocks the signals that a handler takes; the runtime object does this in a program.
class HandlerTest : public testing::Test {
 protected:
  void SetUp() override { Mask::call({SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP}, SIG_BLOCK); }
  void TearDown() override {
    // What is still pending must not end the test program.
    for (const int signal : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP}) {
      ::signal(signal, SIG_IGN);
      ::signal(signal, SIG_DFL);
    }
    Mask::call(before_, SIG_SETMASK);
  }

  static void send(int signal) { Sender::signalProc(signal, ::getpid()); }

  /// What a removal raises, whatever the line.
  static test::Raised removing(Handler& handler, int signal, Notifier& notifier) {
    return test::raisedBy([&] { handler.remove(signal, notifier); });
  }
  /// The handler works: a new notifier is told of a signal.
  static void expectDelivery(Handler& handler, int signal) {
    Notifier notifier;
    handler.add(signal, notifier);
    send(signal);
    EXPECT_TRUE(notifier.isTold(1));
    handler.remove(signal, notifier);
  }

  static constexpr const char* source = "src/os/posix/signal/Handler";
  const test::Raised notRegistered =
      test::usageError("tried to remove non-registered signal", source, 0, "remove");

 private:
  const Set before_ = Mask::get();
};

}  // namespace kes::signal
