#include "kespal/proc/Info.h"

#include <mach-o/dyld.h>
#include <sys/sysctl.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kespal/error/DynError.h"

namespace kes::proc {

namespace {

constexpr std::uint32_t exeLimit = 1024;

/// The whole process list; empty when the kernel refuses or has none to give. The kernel says how many there
/// are, and when there are more by the time it is asked for them, it is asked again.
std::vector<kinfo_proc> processList() {
  int query[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
  for (;;) {
    std::size_t bytes = 0;
    if (::sysctl(query, 3, nullptr, &bytes, nullptr, 0) != 0 || bytes == 0) return {};
    std::vector<kinfo_proc> processes(bytes / sizeof(kinfo_proc));
    bytes = processes.size() * sizeof(kinfo_proc);
    if (::sysctl(query, 3, processes.data(), &bytes, nullptr, 0) == 0) {
      processes.resize(bytes / sizeof(kinfo_proc));
      return processes;
    }
    if (errno != ENOMEM) return {};
  }
}

}  // namespace

fs::Path Info::exe() {
  char text[exeLimit] = "";
  std::uint32_t size = exeLimit;
  if (::_NSGetExecutablePath(text, &size) != 0) {
    raiseAt({"src/os/darwin/proc/Info", 97, "exe"},
            DynError("Executable path too large. Got: " + std::to_string(exeLimit) + " bytes, need " +
                         std::to_string(size) + " bytes.",
                     nullptr));
  }
  return text;
}

std::set<int> Info::running(const std::string& name) {
  std::set<int> found;
  const std::string wanted = name.substr(0, MAXCOMLEN);
  for (const kinfo_proc& process : processList()) {
    if (wanted == process.kp_proc.p_comm) found.insert(process.kp_proc.p_pid);
  }
  return found;
}

}  // namespace kes::proc
