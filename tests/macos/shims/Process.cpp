#include <crt_externs.h>
#include <mach-o/dyld.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>
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
    std::getline(std::ifstream(entry.path() / "comm"), command);
    kinfo_proc process{};
    process.kp_proc.p_pid = std::stoi(name);
    command.copy(process.kp_proc.p_comm, MAXCOMLEN);
    list.push_back(process);
  }
  return list;
}

}  // namespace

// Knows one question, the list of all processes. Asked without a buffer it estimates with room to spare,
// as the kernel does, and into a short buffer it writes as many records as fit and fails.
int sysctl(int* name, unsigned int length, void* old, std::size_t* oldSize, void*, std::size_t) {
  if (length != 3 || name[0] != CTL_KERN || name[1] != KERN_PROC || name[2] != KERN_PROC_ALL) {
    errno = ENOENT;
    return -1;
  }
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
