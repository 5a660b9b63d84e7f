#include "support/Surroundings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "sys/NoCancel.h"

namespace kes::test {

namespace stdfs = std::filesystem;

namespace {

int threads() {
  int found = 0;
  for ([[maybe_unused]] const auto& task : stdfs::directory_iterator("/proc/self/task")) ++found;
  return found;
}

bool objectsCount = false;

int systemVObjects() {
  if (!objectsCount) return 0;
  shm_info segments{};
  seminfo semaphores{};
  ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&segments));
  ::semctl(0, 0, SEM_INFO, &semaphores);
  return segments.used_ids + semaphores.semusz;
}

bool hasChildren() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}
}  // namespace

bool Surroundings::countObjects() noexcept { return objectsCount = true; }

Surroundings Surroundings::now() {
  Surroundings found;
  for (int fd = 0; fd < 128; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1) found.descriptors.insert(fd);
  }
  found.threadCount = threads();
  found.children = hasChildren();
  found.objects = systemVObjects();
  ::pthread_sigmask(SIG_SETMASK, nullptr, &found.mask);
  for (int number = 1; number < 32; ++number) {
    struct sigaction action {};
    ::sigaction(number, nullptr, &action);
    found.handlers[static_cast<std::size_t>(number)] = action.sa_handler;
  }
  return found;
}

std::string Surroundings::addedTo(const Surroundings& before) const {
  std::string text;
  for (const int fd : descriptors) {
    if (before.descriptors.count(fd) == 0) text += " a descriptor (" + std::to_string(fd) + ")";
  }
  if (threadCount > before.threadCount) text += " a thread";
  if (children && !before.children) text += " a child";
  if (objects > before.objects) text += " a System V object";
  for (int number = 1; number < 32; ++number) {
    if (::sigismember(&mask, number) != ::sigismember(&before.mask, number)) {
      text += " another signal mask (" + std::to_string(number) + ")";
    }
    const auto at = static_cast<std::size_t>(number);
    if (handlers[at] != before.handlers[at]) text += " another handler of signal " + std::to_string(number);
  }
  return text;
}

std::set<std::string> filesIn(const std::string& folder) {
  const sys::NoCancel untilRead;
  std::set<std::string> found;
  std::error_code error;
  for (stdfs::recursive_directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    found.insert(at->path().string());
  }
  return found;
}

bool hasLocks(const std::string& folder) {
  return std::ranges::any_of(filesIn(folder), [](const std::string& path) {
    if (!stdfs::is_regular_file(stdfs::symlink_status(path))) return false;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool isLocked = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return isLocked;
  });
}

}  // namespace kes::test
