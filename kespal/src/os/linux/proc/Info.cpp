#include "kespal/proc/Info.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "kespal/error/DynError.h"
#include "kespal/error/OsError.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::proc {

namespace {

constexpr std::size_t exeLimit = 1024;
constexpr std::size_t commLimit = 15;

bool isProcess(const char* entry) { return std::isdigit(static_cast<unsigned char>(*entry)) != 0; }

/// Whether the error says that a process is gone, or not ours to see.
bool isOutOfSight(int errnum) {
  return errnum == ENOENT || errnum == ESRCH || errnum == EACCES || errnum == EPERM;
}

/// The first bytes of a process's command name, of which the kernel tells more for its own workers; empty
/// when the process is out of sight, none when the system does not tell.
std::optional<std::string> commandName(const char* pid) {
  const std::string path = std::string("/proc/") + pid + "/comm";
  char text[64];
  std::size_t size = 0;
  const sys::NoCancel untilRead;  // one while the file is opened would lose the descriptor
  const sys::Descriptor file(sys::retry([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  ssize_t count = file ? 1 : -1;
  while (count > 0 && size != sizeof text && (size == 0 || text[size - 1] != '\n')) {
    count = sys::retry([&] { return ::read(file.get(), text + size, sizeof text - size); });
    if (count > 0) size += static_cast<std::size_t>(count);
  }
  if (count == -1) return isOutOfSight(errno) ? std::optional<std::string>("") : std::nullopt;
  return std::string(text, std::min(size != 0 ? size - 1 : 0, commLimit));  // without the newline
}

/// The process is asked by its first thread, which may have ended before the others: then by this one.
ssize_t readExecutable(char* text, std::size_t size) {
  const ssize_t length = ::readlink("/proc/self/exe", text, size);
  return length == -1 && errno == ENOENT ? ::readlink("/proc/thread-self/exe", text, size) : length;
}

}  // namespace

fs::Path Info::exe() {
  char text[PATH_MAX + 1] = "";
  const ssize_t length = check(KES_HERE, readExecutable(text, PATH_MAX));
  const std::size_t needed = static_cast<std::size_t>(length) + 1;
  if (needed > exeLimit) {
    raiseAt({"src/os/linux/proc/Info", 97, "exe"},
            DynError("Executable path too large. Got: " + std::to_string(exeLimit) + " bytes, need " +
                         std::to_string(needed) + " bytes.",
                     nullptr));
  }
  return text;
}

std::set<int> Info::running(const std::string& name) {
  std::set<int> found;
  const std::string wanted = name.substr(0, commLimit);
  const sys::DirStream processes(::opendir("/proc"));
  if (!processes || wanted.empty()) return found;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(processes.get());
    if (entry == nullptr) return errno == 0 ? found : std::set<int>();
    if (!isProcess(entry->d_name)) continue;
    const std::optional<std::string> command = commandName(entry->d_name);
    if (!command) return {};
    if (*command == wanted) found.insert(std::atoi(entry->d_name));
  }
}

}  // namespace kes::proc
