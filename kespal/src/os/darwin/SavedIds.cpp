#include "os/SavedIds.h"

#include <sys/sysctl.h>
#include <unistd.h>

#include <cstddef>

namespace kes::os {

// No call asks for the saved id alone; the process's own entry in the process table has it.
unsigned savedUserId() noexcept {
  int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, ::getpid()};
  kinfo_proc entry{};
  std::size_t size = sizeof entry;
  if (::sysctl(name, 4, &entry, &size, nullptr, 0) != 0) return ::geteuid();
  return entry.kp_eproc.e_pcred.p_svuid;
}

}  // namespace kes::os
