#include "lives.h"

#include <sys/sysctl.h>

#include <cstddef>

namespace kes::os {

Life lifeOf(pid_t pid) noexcept {
  int query[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
  kinfo_proc process{};
  std::size_t size = sizeof process;
  if (::sysctl(query, 4, &process, &size, nullptr, 0) != 0) return {false, 0};
  if (size < sizeof process) return {true, 0};
  const timeval start = process.kp_proc.p_starttime;
  return {process.kp_proc.p_stat == SZOMB,
          static_cast<std::uint64_t>(start.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(start.tv_usec)};
}

}  // namespace kes::os
