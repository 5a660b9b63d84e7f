#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kes::test {

/// Looks until `holds` is true, with a limit that only a hanging program reaches. What it waits for happens
/// in another thread or process and gives no other sign.
inline bool eventually(const std::function<bool()>& holds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace kes::test
