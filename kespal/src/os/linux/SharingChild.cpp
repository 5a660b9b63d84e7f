#include "os/SharingChild.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::os {

namespace {

/// Memory for a stack, with a page below it that nobody may touch.
class Stack {
 public:
  explicit Stack(std::size_t size) noexcept {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    size_ = (size / page + 2) * page;
    void* memory =
        ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) return;
    memory_ = static_cast<char*>(memory);
    ::mprotect(memory_, page, PROT_NONE);
  }
  ~Stack() {
    if (memory_ != nullptr) ::munmap(memory_, size_);
  }
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;

  /// Stacks grow downwards on every processor of this system but one. Null when there is no memory.
  void* top() const noexcept { return memory_ != nullptr ? memory_ + size_ : nullptr; }

 private:
  char* memory_ = nullptr;
  std::size_t size_ = 0;
};

struct Task {
  void (*body)(void*);
  void* argument;
};

int run(void* task) {
  const auto& todo = *static_cast<const Task*>(task);
  todo.body(todo.argument);
  ::_exit(125);
}

/// Takes away a child that ended without becoming a program. Until it does, a child that has no signal for
/// its end is seen by those alone who ask for such children: not by the collector, nor by any other wait().
bool hasEndedBefore(pid_t pid) noexcept {
  return sys::retry([pid] { return ::waitpid(pid, nullptr, static_cast<int>(__WCLONE)); }) == pid;
}

}  // namespace

pid_t startSharing(void (*body)(void*), void* argument, std::size_t stackSize) noexcept {
  const sys::NoCancel untilStarted;
  const Stack stack(stackSize);
  if (stack.top() == nullptr) return 0;
  Task task{body, argument};
  // No signal for its end: an exec makes that SIGCHLD.
  const pid_t pid = ::clone(&run, stack.top(), CLONE_VM | CLONE_VFORK, &task);
  if (pid != -1) return hasEndedBefore(pid) ? 0 : pid;
  return errno == EAGAIN || errno == ENOMEM ? -1 : 0;
}

}  // namespace kes::os
