#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "command_line.h"
#include "kesos/processes.h"
#include "kespal/fs/Ops.h"
#include "kespal/os/posix/proc/Start.h"
#include "kespal/signal/Set.h"
#include "paths.h"
#include "process_handle.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

// Programs that are started with options, and whose failure is an answer.

using kes::kesos::CommandLine;
using kes::kesos::failWith;

namespace {

constexpr KesOsProcessOptions usual = KESOS_PROCESS_OPTIONS;

/// Takes over what this version knows of the options; false with errno when that is not what was asked for.
bool takeOptions(const KesOsProcessOptions& given, KesOsProcessOptions& known) {
  constexpr std::size_t first = offsetof(KesOsProcessOptions, standardError) + sizeof(int);
  if (given.size < first) return failWith(EINVAL) != 0;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&given);
  const bool isKnown =
      given.size <= sizeof known ||
      std::all_of(bytes + sizeof known, bytes + given.size, [](unsigned char byte) { return byte == 0; });
  if (!isKnown) return failWith(E2BIG) != 0;
  std::memcpy(&known, &given, std::min(given.size, sizeof known));
  return true;
}

/// A program and what it is started with. All that takes memory is done before there is a child.
struct Start {
  std::string file;
  std::vector<char*> slots;  ///< room for the shell, the arguments, null
  const KesOsProcessOptions& options;
  int report = -1;     ///< where a child with memory of its own says why it failed
  bool tried = false;  ///< by a child that shares this memory
  int errnum = 0;      ///< why that one failed
};

/// The path of a program; empty when it is not found.
std::string pathOf(const char* program) {
  return std::strchr(program, '/') != nullptr ? program : kes::fs::Ops::which(program);
}

bool giveStreams(const KesOsProcessOptions& options) {
  std::array<int, 3> streams{options.standardInput, options.standardOutput, options.standardError};
  // First out of the way of each other.
  for (int& stream : streams) {
    if (stream != -1 && (stream = ::fcntl(stream, F_DUPFD_CLOEXEC, 3)) == -1) return false;
  }
  for (int target = 0; target < 3; ++target) {
    const int stream = streams[static_cast<std::size_t>(target)];
    if (stream != -1 && kes::sys::retry([=] { return ::dup2(stream, target); }) == -1) return false;
  }
  return true;
}

void execute(Start& start) {
  char* const file = start.file.data();
  const char* const* const environment = start.options.environment;
  if (environment == nullptr) {
    ::execvp(file, start.slots.data() + 1);
    return;
  }
  ::execve(file, start.slots.data() + 1, const_cast<char* const*>(environment));
  if (errno != ENOEXEC) return;
  static char shell[] = "/bin/sh";
  start.slots[0] = shell;
  start.slots[1] = file;
  ::execve(shell, start.slots.data(), const_cast<char* const*>(environment));
}

/// Makes this process the program; returns with errno when that is not possible. System calls only.
void become(Start& start) {
  ::sigprocmask(SIG_SETMASK, &kes::signal::Set::m_original.native(), nullptr);
  const char* const directory = start.options.directory;
  if (!giveStreams(start.options) || (directory != nullptr && ::chdir(directory) != 0)) return;
  execute(start);
}

void becomeOrNote(void* argument) {
  Start& start = *static_cast<Start*>(argument);
  start.tried = true;
  become(start);
  start.errnum = errno;
}

void becomeOrReport(void* argument) {
  Start& start = *static_cast<Start*>(argument);
  become(start);
  const int errnum = errno;
  static_cast<void>(!kes::sys::retry([&] { return ::write(start.report, &errnum, sizeof errnum); }));
  ::_exit(127);
}

void becomeOrVanish(void* argument) { becomeOrNote(argument); }

/// One end of a pipe as it has to be: no child keeps it, and no stream is put in its place.
kes::sys::Descriptor outOfTheWay(int end) {
  const kes::sys::Descriptor low(end);
  return kes::sys::Descriptor(::fcntl(end, F_DUPFD_CLOEXEC, 3));
}

/// Makes a child with memory of its own, whose failure comes by a pipe. An exec closes that.
pid_t startByFork(Start& start) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  const kes::sys::Descriptor readEnd = outOfTheWay(ends[0]);
  kes::sys::Descriptor writeEnd = outOfTheWay(ends[1]);
  if (!readEnd || !writeEnd) return -1;
  start.report = writeEnd.get();
  const pid_t pid = kes::os::startChild(&becomeOrVanish, &becomeOrReport, &start, start.slots.size());
  if (pid < 0) return -1;
  writeEnd.reset();
  int errnum = 0;
  const ssize_t count = kes::sys::retry([&] { return ::read(readEnd.get(), &errnum, sizeof errnum); });
  if (count != sizeof errnum) return pid;
  kes::sys::retry([pid] { return ::waitpid(pid, nullptr, 0); });
  errno = errnum;
  return -1;
}

/// The id of the child that became the program, or -1 with errno.
pid_t startProgram(Start& start) {
  const kes::sys::NoCancel untilStarted;
  const pid_t pid = kes::os::startChild(&becomeOrNote, nullptr, &start, start.slots.size());
  if (pid != 0) return pid;
  if (!start.tried) return startByFork(start);
  errno = start.errnum;
  return -1;
}

int startHandle(Start& start, KesOsProcess** out) {
  std::unique_ptr<KesOsProcess> process(new (std::nothrow) KesOsProcess{});
  if (process == nullptr) return failWith(ENOMEM);
  process->pid = process->id = startProgram(start);
  if (process->pid < 0) return 0;
  *out = process.release();
  return 1;
}

/// `arguments` begins with the program, and ends with a null.
int startWith(const char* const* arguments, const KesOsProcessOptions& options, KesOsProcess** out) {
  if (*arguments == nullptr) return failWith(EINVAL);
  Start start{pathOf(*arguments), {nullptr}, options};
  if (start.file.empty()) return failWith(ENOENT);
  for (; *arguments != nullptr; ++arguments) start.slots.push_back(const_cast<char*>(*arguments));
  start.slots.push_back(nullptr);
  return startHandle(start, out);
}

}  // namespace

int KesOsCreateProcessAsynEx(const char* cmd, const KesOsProcessOptions* options, KesOsProcess** out) {
  if (out == nullptr) return failWith(EFAULT);
  *out = nullptr;
  KesOsProcessOptions known = usual;
  if (options != nullptr && !takeOptions(*options, known)) return 0;
  if ((cmd == nullptr) == (known.arguments == nullptr)) return failWith(EINVAL);
  try {
    if (cmd == nullptr) return startWith(known.arguments, known, out);
    const CommandLine commandLine(parseProcessCommandline(cmd));
    return commandLine ? startWith(commandLine.get() + 1, known, out) : 0;
  } catch (const std::exception&) {
    return failWith(ENOMEM);
  }
}
