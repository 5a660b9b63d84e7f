#pragma once

#include <mach/mach.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace kes::iokit {

/// A number that no other object of this process has or recently had, formed as the kernel forms names.
inline mach_port_t nextHandle() {
  static std::atomic<mach_port_t> last{0x1003};
  return last.fetch_add(0x100, std::memory_order_relaxed);
}

/// The objects behind handles. An object lives as long as its handle, or as a call that is using it.
/// Thread-safe.
template <typename Object>
class Handles {
 public:
  mach_port_t add(std::shared_ptr<Object> object) {
    const std::lock_guard lock(mutex_);
    mach_port_t handle = nextHandle();
    while (!objects_.try_emplace(handle, object).second) handle = nextHandle();
    return handle;
  }

  /// The object, or null for a handle that is none.
  std::shared_ptr<Object> find(mach_port_t handle) const {
    const std::lock_guard lock(mutex_);
    const auto found = objects_.find(handle);
    return found == objects_.end() ? nullptr : found->second;
  }

  /// Whether there was such a handle; there is none afterwards.
  bool remove(mach_port_t handle) {
    std::shared_ptr<Object> last;  // dies after the lock: closing may block
    const std::lock_guard lock(mutex_);
    const auto found = objects_.find(handle);
    if (found == objects_.end()) return false;
    last = std::move(found->second);
    objects_.erase(found);
    return true;
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<mach_port_t, std::shared_ptr<Object>> objects_;
};

}  // namespace kes::iokit
