#include "os/SharingChild.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <new>
#include <optional>

#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::os {

namespace {

/// Memory for a stack, with a page below it that nobody may touch. One is kept for the next start: to make it
/// and to give it back costs more than what a child does there.
class Stack {
 public:
  explicit Stack(std::size_t size) noexcept : end_(m_kept.exchange(nullptr)) {
    if (end_ != nullptr && end_->size >= size) return;
    giveBack(end_);
    end_ = make(size);
  }
  ~Stack() { giveBack(m_kept.exchange(end_)); }
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;

  /// Stacks grow downwards on every processor of this system but one. Null when there is no memory.
  void* top() const noexcept { return end_; }

 private:
  /// Lies behind the stack.
  struct alignas(64) End {
    char* memory;
    std::size_t all, size;
  };

  static End* make(std::size_t size) noexcept {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t all = ((size + sizeof(End)) / page + 2) * page;
    void* const memory =
        ::mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    ::mprotect(memory, page, PROT_NONE);
    auto* const first = static_cast<char*>(memory);
    return new (first + all - sizeof(End)) End{first, all, size};
  }
  static void giveBack(const End* end) noexcept {
    if (end != nullptr) ::munmap(end->memory, end->all);
  }

  static constinit std::atomic<End*> m_kept;

  End* end_;
};

constinit std::atomic<Stack::End*> Stack::m_kept{nullptr};

struct Task {
  void (*body)(void*);
  void* argument;
};

int run(void* task) {
  const auto& todo = *static_cast<const Task*>(task);
  todo.body(todo.argument);
  ::_exit(125);
}

/// Takes away a child that ended without becoming a program, and gives its wait status. Until it does, a
/// child that has no signal for its end is seen by those alone who ask for such children: not by the
/// collector, nor by any other wait().
std::optional<int> endBefore(pid_t pid) noexcept {
  int status = 0;
  const auto take = [&] { return ::waitpid(pid, &status, static_cast<int>(__WCLONE)); };
  return sys::retry(take) == pid ? std::optional<int>(status) : std::nullopt;
}

/// The signal that somebody sent to the child, be it to its whole process group; 0 when it ended otherwise.
int killerIn(int status) noexcept {
  constexpr int ofItsOwn[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};
  const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return std::find(std::begin(ofItsOwn), std::end(ofItsOwn), signal) == std::end(ofItsOwn) ? signal : 0;
}

/// A child that ends as the first one did, for everybody to see: the program must not run as if nobody had
/// sent it anything.
pid_t startKilled(int signal) noexcept {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  ::sigset_t it;
  sigemptyset(&it);
  sigaddset(&it, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &it, nullptr);
  ::kill(::getpid(), signal);
  ::_exit(125);
}

}  // namespace

pid_t startSharing(void (*body)(void*), void* argument, std::size_t stackSize) noexcept {
  const sys::NoCancel untilStarted;
  const Stack stack(stackSize);
  if (stack.top() == nullptr) return 0;
  Task task{body, argument};
  // No signal for its end: an exec makes that SIGCHLD.
  const pid_t pid = ::clone(&run, stack.top(), CLONE_VM | CLONE_VFORK, &task);
  if (pid == -1) return errno == EAGAIN || errno == ENOMEM ? -1 : 0;
  const std::optional<int> status = endBefore(pid);
  if (!status) return pid;
  const int signal = killerIn(*status);
  return signal != 0 ? startKilled(signal) : 0;
}

}  // namespace kes::os
