#include "os/posix/proc/Start.h"

#include <signal.h>  // NOLINT(modernize-deprecated-headers): <csignal> need not have NSIG
#include <unistd.h>

#include <cerrno>

#include "kespal/os/posix/proc/Start.h"
#include "os/SharingChild.h"
#include "os/posix/proc/Program.h"
#include "os/posix/proc/StartNote.h"
#include "sys/NoCancel.h"

namespace kes::proc {

namespace {

/// Holds all signals of the calling thread back, but those that the C library keeps for itself.
class NoSignals {
 public:
  NoSignals() noexcept {
    ::sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~NoSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NoSignals(const NoSignals&) = delete;
  NoSignals& operator=(const NoSignals&) = delete;

 private:
  ::sigset_t before_;
};

/// Gives up the handlers that a child has from its parent: they may take locks, and change what is shared. An
/// exec does the same, but the signals come back before.
void resetHandlers() noexcept {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action;
    if (::sigaction(signal, nullptr, &action) != 0) continue;
    if (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = SIG_DFL;
    action.sa_flags = 0;
    ::sigaction(signal, &action, nullptr);
  }
}

/// The stack that a body takes. The C library makes a copy of the arguments there, when the program turns out
/// to be a script without a first line, and of each file that a search along PATH tries.
constexpr std::size_t stackFor(std::size_t arguments) noexcept {
  return (std::size_t{192} << 10) + arguments * sizeof(char*);
}

struct Task {
  os::ChildBody body;
  void* argument;
};

void resetAndCall(void* task) {
  const auto& todo = *static_cast<const Task*>(task);
  resetHandlers();
  todo.body(todo.argument);
}

/// While it lives, nothing disturbs the calling thread, nor a child that it makes.
struct Undisturbed {
  const sys::NoCancel untilStarted{};
  const NoSignals untilReset{};
};

pid_t forkChild(Task task) noexcept {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  resetAndCall(&task);
  ::_exit(125);
}

struct Order {
  const Program& program;
  bool newProcessGroup;
  const StartNote& note;
};

void becomeSilently(void* order) {
  const auto& wanted = *static_cast<const Order*>(order);
  if (!wanted.newProcessGroup || ::setpgid(0, 0) == 0) wanted.program.becomeSilently();
}

// The copy of the collector's lock is left alone: the exec throws it away.
void become(void* order) {
  const auto& wanted = *static_cast<const Order*>(order);
  if (wanted.newProcessGroup) {
    if (const int errnum = leadNewProcessGroup()) {
      wanted.note.write(StartFailure::Step::ProcessGroup, errnum);
    }
  }
  wanted.program.become(wanted.note);
}

}  // namespace

// A child that becomes another user while it shares memory would hand that user this process's: it is forked.
// Only a forked child has anything to note.
pid_t start(const Program& program, bool newProcessGroup, StartNote& note) noexcept {
  Order order{program, newProcessGroup, note};
  if (!program.isForAnotherUser()) {
    const pid_t pid = os::startChild(&becomeSilently, nullptr, &order, program.argumentCount());
    if (pid != 0) return pid;
  }
  if (!note.open()) return -1;
  const Undisturbed untilForked;
  return forkChild({&become, &order});
}

}  // namespace kes::proc

// A child that shares memory with its parent holds it up, so it must not write to a pipe that is full, or a
// terminal that stops it. Whatever there is to tell, it ends without a word, and a plain fork does it all
// again.
pid_t kes::os::startChild(ChildBody quietly, ChildBody aloud, void* argument,
                          std::size_t arguments) noexcept {
  const int errnum = errno;
  const proc::Undisturbed untilStarted;
  proc::Task task{quietly, argument};
  pid_t pid = startSharing(&proc::resetAndCall, &task, proc::stackFor(arguments));
  if (pid == 0 && aloud != nullptr) pid = proc::forkChild({aloud, argument});
  if (pid != -1) errno = errnum;
  return pid;
}
