#include <crt_externs.h>
#include <mach-o/dyld.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

char*** _NSGetEnviron() { return &environ; }

int _NSGetExecutablePath(char* path, std::uint32_t* size) {
  const std::string found = std::filesystem::read_symlink("/proc/self/exe");
  const auto needed = static_cast<std::uint32_t>(found.size() + 1);
  if (*size < needed) {
    *size = needed;
    return -1;
  }
  std::memcpy(path, found.c_str(), needed);
  return 0;
}

namespace {

std::vector<kinfo_proc> processes() {
  std::vector<kinfo_proc> list;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string command;
    if (!std::getline(std::ifstream(entry.path() / "comm"), command)) continue;  // it has just ended
    kinfo_proc process{};
    process.kp_proc.p_pid = std::stoi(name);
    command.copy(process.kp_proc.p_comm, MAXCOMLEN);
    list.push_back(process);
  }
  return list;
}

}  // namespace

namespace {

/// The list of all processes. Asked without a buffer it estimates with room to spare, as the kernel does,
/// and into a short buffer it writes as many records as fit and fails.
int giveAll(void* old, std::size_t* oldSize) {
  const std::vector<kinfo_proc> list = processes();
  if (old == nullptr) {
    *oldSize = (list.size() + 5) * sizeof(kinfo_proc);
    return 0;
  }
  const std::size_t fitting = std::min(list.size(), *oldSize / sizeof(kinfo_proc));
  std::memcpy(old, list.data(), fitting * sizeof(kinfo_proc));
  *oldSize = fitting * sizeof(kinfo_proc);
  if (fitting == list.size()) return 0;
  errno = ENOMEM;
  return -1;
}

/// The asking process.
int giveSelf(void* old, std::size_t* oldSize) {
  kinfo_proc self{};
  uid_t real = 0, effective = 0;
  ::getresuid(&real, &effective, &self.kp_eproc.e_pcred.p_svuid);
  ::getresgid(&real, &effective, &self.kp_eproc.e_pcred.p_svgid);
  self.kp_proc.p_pid = ::getpid();
  *oldSize = std::min(*oldSize, sizeof self);
  std::memcpy(old, &self, *oldSize);
  return 0;
}

}  // namespace

int kes_shim_error_count() { return 134; }

const char* const* kes_shim_error_list() {
  static const std::vector<const char*> texts = [] {
    std::vector<const char*> list;
    for (int errnum = 0; errnum < kes_shim_error_count(); ++errnum) list.push_back(::strerrordesc_np(errnum));
    return list;
  }();
  return texts.data();
}

// Knows two questions.
int sysctl(int* name, unsigned int length, void* old, std::size_t* oldSize, void*, std::size_t) {
  const bool ofProcesses = length >= 3 && name[0] == CTL_KERN && name[1] == KERN_PROC;
  if (ofProcesses && length == 3 && name[2] == KERN_PROC_ALL) return giveAll(old, oldSize);
  if (ofProcesses && length == 4 && name[2] == KERN_PROC_PID && name[3] == ::getpid())
    return giveSelf(old, oldSize);
  errno = ENOENT;
  return -1;
}
