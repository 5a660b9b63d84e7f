#pragma once

#include <atomic>

namespace kes::test {

/// Holds threads up until it is opened. Waiting here is no cancellation point.
class Gate {
 public:
  void open() {
    open_ = true;
    open_.notify_all();
  }
  void pass() const { open_.wait(false); }

 private:
  std::atomic<bool> open_{false};
};

}  // namespace kes::test
