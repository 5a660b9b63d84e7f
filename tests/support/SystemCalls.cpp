#include "support/SystemCalls.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

// This one header defines what <sys/ptrace.h> declares under other names.
struct SyscallInfo {
  unsigned char op;
  unsigned char padding[3];
  unsigned arch;
  unsigned long long instructionPointer;
  unsigned long long stackPointer;
  unsigned long long number;
  unsigned long long arguments[6];
};

namespace kes::test {

namespace {

constexpr int notTraceable = 98, failed = 99;
constexpr unsigned char atEntry = 1;  // PTRACE_SYSCALL_INFO_ENTRY
constexpr int systemCallStop = SIGTRAP | 0x80;

/// Nothing under test calls it, and no library answers it from memory.
void mark() { ::syscall(SYS_getppid); }

[[noreturn]] void runTraced(const std::function<void()>& body) {
  if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(notTraceable);
  ::raise(SIGSTOP);
  try {
    mark();
    body();
    mark();
  } catch (...) {
    ::_exit(failed);
  }
  ::_exit(0);
}

bool managesMemory(long number) {
  constexpr long calls[] = {SYS_mmap, SYS_munmap, SYS_mprotect, SYS_madvise, SYS_mremap, SYS_brk};
  return std::find(std::begin(calls), std::end(calls), number) != std::end(calls);
}

/// Follows a stopped child to its end; its wait status.
int follow(pid_t child, std::vector<long>& numbers) {
  int status = 0, marks = 0, deliver = 0;
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  while (::ptrace(PTRACE_SYSCALL, child, nullptr, deliver) == 0 && ::waitpid(child, &status, 0) == child &&
         WIFSTOPPED(status)) {
    deliver = WSTOPSIG(status) == systemCallStop ? 0 : WSTOPSIG(status);
    SyscallInfo info{};
    // NOLINTBEGIN(performance-no-int-to-ptr): ptrace() takes the size in the place of an address
    if (deliver != 0 ||
        ::ptrace(PTRACE_GET_SYSCALL_INFO, child, reinterpret_cast<void*>(sizeof info), &info) <= 0 ||
        info.op != atEntry) {
      // NOLINTEND(performance-no-int-to-ptr)
      continue;
    }
    const auto number = static_cast<long>(info.number);
    if (number == SYS_getppid) {
      ++marks;
    } else if (marks == 1 && !managesMemory(number)) {
      numbers.push_back(number);
    }
  }
  return status;
}

}  // namespace

std::optional<std::vector<long>> systemCallsOf(const std::function<void()>& body) {
  const pid_t child = ::fork();
  if (child == 0) runTraced(body);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) throw std::runtime_error("no child");
  if (WIFEXITED(status) && WEXITSTATUS(status) == notTraceable) return std::nullopt;
  std::vector<long> numbers;
  if (WIFSTOPPED(status)) status = follow(child, numbers);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("the traced child failed");
  return numbers;
}

}  // namespace kes::test
