#include "kespal/proc/Child.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "os/System.h"
#include "os/posix/proc/Identity.h"
#include "os/posix/proc/Program.h"
#include "os/posix/proc/RawMessage.h"
#include "os/posix/proc/Start.h"
#include "os/posix/proc/StartNote.h"
#include "proc/Flock.h"
#include "signal/Pending.h"
#include "sys/AtEnd.h"

namespace kes::proc {

namespace {

constexpr unsigned unknownId = 0xFFFFFFFF;

}  // namespace

void Child::create(bool inPlace) {
  if (arguments_.empty()) {
    raiseAt({"src/os/posix/proc/Child", 83, "create"}, UsageError("No executable specified"));
  }
  if (!inPlace && pid_ != -1 && isOfThisProcess()) {
    raiseAt(KES_HERE, UsageError("Can't start another program: the child was not waited for"));
  }
  if (!inPlace) note_ = nullptr;
  for (int fd : {stdoutFd_, stderrFd_, stdinFd_}) {
    if (fd != -1 && !keepsCloseOnExec_)
      check({"src/os/posix/proc/Child", 97, "create"}, ::fcntl(fd, F_SETFD, 0));
  }
  const Program program({.arguments = arguments_,
                         .environment = environment_,
                         .inheritsEnvironment = environment_.empty() && !environmentCleared_,
                         .searchesOwnPath = searchesOwnPath_,
                         .workingDirectory = workingDirectory_,
                         .streams = {stdoutFd_, stderrFd_, stdinFd_},
                         .user = user_.get()});
  if (inPlace) {
    signal::takePending();
    program.become(StartNote());
  }
  fork(program);
}

void Child::setUser(const UserInfo& user, const std::set<unsigned>& groups) {
  const auto isOfAccount = [](unsigned id) { return id != 0 && id != unknownId; };
  if (!isOfAccount(user.uid) || !isOfAccount(user.gid)) {
    raiseAt(KES_HERE, UsageError("A program can be started only as a known user without root's rights"));
  }
  user_ = std::make_shared<const Identity>(Identity{user.uid, user.gid, os::groupList(user.gid, groups)});
}

std::optional<StartFailure> Child::startFailure() const noexcept {
  return note_ ? note_->read() : std::nullopt;
}

/// Starts the program with streams that no other program is to inherit: each is a copy in the child, which is
/// not close-on-exec. They must not have the numbers of streams.
void Child::createOver(int in, int out, int err) {
  const sys::AtEnd restoring([this, stdinFd = stdinFd_, stdoutFd = stdoutFd_, stderrFd = stderrFd_] {
    stdinFd_ = stdinFd;
    stdoutFd_ = stdoutFd;
    stderrFd_ = stderrFd;
    keepsCloseOnExec_ = false;
  });
  stdinFd_ = in;
  stdoutFd_ = out;
  stderrFd_ = err;
  keepsCloseOnExec_ = true;
  create();
}

/// The collector's lock is held from before the fork until the child is registered. Nothing of this object
/// is touched once it is free: the child's end may already have destroyed it.
void Child::fork(const Program& program) {
  pid_ = -1;
  note_ = std::make_shared<StartNote>();
  const std::shared_ptr<Flock> flock = flock_ = collector();
  const Flock::Guard guard(flock->condition());
  if (!flock->isServingNoLock()) raiseAt(KES_HERE, RuntimeError("The process collector has ended"));
  flock->expectNoLock();
  const pid_t pid =
      check({"src/os/posix/proc/Child", 129, "create"}, start(program, newProcessGroup_, *note_));
  pid_ = registeredPid_ = pid;
  registration_ = flock->addNoLock(pid, notify_ != nullptr ? this : nullptr);
}

Child::ExitState Child::wait(bool timed, const time::Milliseconds& timeout) {
  if (pid_ == -1) {
    raiseAt({"src/os/posix/proc/Child", 340, "wait"}, UsageError("tried to wait on non-existent child"));
  }
  ExitState state{0, false};
  try {
    if (!isOfThisProcess()) raiseAt(KES_HERE, RuntimeError("There is no process collector"));
    state.finished = flock_->wait(registeredPid_, state.status, timed ? &timeout : nullptr, registration_);
  } catch (const std::exception&) {
    forget();
    throw;
  }
  if (state.finished) pid_ = -1;
  return state;
}

Child::ExitState Child::waitFor(const time::Milliseconds& timeout) {
  if (pid_ == -1) raiseAt(KES_HERE, UsageError("tried to wait on non-existent child"));
  ExitState state{0, false};
  try {
    if (!isOfThisProcess()) raiseAt(KES_HERE, RuntimeError("There is no process collector"));
    state.finished = flock_->waitFor(registeredPid_, state.status, timeout, registration_);
  } catch (const std::exception&) {
    forget();
    throw;
  }
  if (state.finished) pid_ = -1;
  return state;
}

/// A child that cannot be signalled is still there.
ExitStatus Child::terminate(const time::Milliseconds& grace) {
  if (pid_ == -1) raiseAt(KES_HERE, UsageError("Tried to terminate a child that does not exist"));
  int status = 0;
  try {
    if (!isOfThisProcess()) raiseAt(KES_HERE, RuntimeError("There is no process collector"));
    status = flock_->terminate(registeredPid_, grace, registration_);
  } catch (const RuntimeError&) {
    forget();
    throw;
  }
  pid_ = -1;
  return ExitStatus(status);
}

/// The next child of this object is registered in its place, and its end would find no record of this one.
void Child::forget() {
  pid_ = -1;
  if (isOfThisProcess()) flock_->forget(registeredPid_, registration_);
}

int leadNewProcessGroup() noexcept {
  if (::setpgid(0, 0) == 0) return 0;
  const int errnum = errno;
  RawMessage().add("Failed to set new process group. Errno = ").add(errnum).add("\n").send();
  return errnum;
}

void enterNewProcessGroup() { leadNewProcessGroup(); }

}  // namespace kes::proc
