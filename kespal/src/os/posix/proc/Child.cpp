#include "kespal/proc/Child.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "os/posix/proc/Program.h"
#include "os/posix/proc/RawMessage.h"
#include "proc/Collector.h"

namespace kes::proc {

void Child::create(bool inPlace) {
  if (arguments_.empty()) {
    raiseAt({"src/os/posix/proc/Child", 83, "create"}, UsageError("No executable specified"));
  }
  for (int fd : {stdoutFd_, stderrFd_, stdinFd_}) {
    if (fd != -1 && ::fcntl(fd, F_SETFD, 0) == -1) {
      raiseAt({"src/os/posix/proc/Child", 97, "create"}, OsError(errno));
    }
  }
  const Program program(arguments_, environment_, workingDirectory_, {stdoutFd_, stderrFd_, stdinFd_});
  if (inPlace) program.become();
  fork(program);
}

/// The collector's lock is held from before the fork until the child is registered. Nothing of this object
/// is touched once it is free: the child's end may already have destroyed it.
void Child::fork(const Program& program) {
  const Collector collector(Collector::Created);
  const Shepherd::Guard guard(collector->condition());
  if (!collector->isServingNoLock()) raiseAt(KES_HERE, RuntimeError("The process collector has ended"));
  const pid_t pid = ::fork();
  if (pid == -1) raiseAt({"src/os/posix/proc/Child", 129, "create"}, OsError(errno));
  if (pid == 0) {
    if (newProcessGroup_) enterNewProcessGroup();
    program.become(&collector->condition());
  }
  pid_ = pid;
  registration_ = collector->addNoLock(pid, notify_ != nullptr ? this : nullptr);
}

Child::ExitState Child::wait(bool timed, const time::Milliseconds& timeout) {
  if (pid_ == -1) {
    raiseAt({"src/os/posix/proc/Child", 340, "wait"}, UsageError("tried to wait on non-existent child"));
  }
  ExitState state{0, false};
  try {
    const Collector collector(Collector::Existing);
    state.finished = collector->wait(pid_, state.status, timed ? &timeout : nullptr, registration_);
  } catch (const std::exception&) {
    pid_ = -1;
    throw;
  }
  if (state.finished) pid_ = -1;
  return state;
}

void enterNewProcessGroup() {
  if (::setpgid(0, 0) == 0) return;
  const int error = errno;
  RawMessage().add("Failed to set new process group. Errno = ").add(error).add("\n").send();
}

}  // namespace kes::proc
