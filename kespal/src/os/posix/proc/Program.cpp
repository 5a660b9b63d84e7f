#include "os/posix/proc/Program.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kespal/Helper.h"
#include "kespal/error/OsError.h"
#include "kespal/fs/Ops.h"
#include "kespal/proc/Env.h"
#include "kespal/signal/Mask.h"
#include "kespal/thread/Condition.h"
#include "os/posix/fs/Executable.h"
#include "os/posix/proc/RawMessage.h"

namespace kes::proc {

namespace {

std::vector<char*> nullTerminated(const std::list<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

/// The files that a search along PATH would try.
std::vector<std::string> candidatesFor(const std::string& program) {
  if (program.starts_with('/')) return {program};
  std::string path;
  std::vector<std::string> files;
  proc::Env::get("PATH", path);
  helper::split(path, ':', files, /*strip=*/false, /*keepEmpty=*/false);
  for (std::string& file : files) file += '/' + program;
  return files;
}

void installAs(int target, const char* name, int fd) {
  if (fd != -1 && ::dup2(fd, target) == -1) {
    const int error = errno;
    RawMessage().add("Error dup2()'ing ").add(name).add(": ").add(error).add("\n").send();
  }
}

}  // namespace

Program::Program(const std::list<std::string>& arguments, const std::list<std::string>& environment,
                 const std::string& workingDirectory, const Streams& streams)
    : directory_(workingDirectory), streams_(streams), argv_(nullTerminated(arguments)) {
  if (environment.empty()) return;
  envp_ = nullTerminated(environment);
  candidates_ = candidatesFor(arguments.front());
}

void Program::become(const thread::Condition* inherited) const {
  try {
    start(inherited);
  } catch (...) {
    ::_exit(125);  // no memory even for the report; the parent's frames must not be unwound here
  }
}

void Program::start(const thread::Condition* inherited) const {
  try {
    if (inherited != nullptr) inherited->unlock();
    signal::Mask::call(signal::Set::m_original, SIG_SETMASK);
  } catch (const Exception& error) {
    giveUp("\n", error.exStack() + '\n');
  }
  redirect();
  changeDirectory();
  execute();
  OsError error(errno);
  locateAt({"src/os/posix/proc/Child", 318, "create"}, error);
  giveUp("\n", error.exStack() + '\n');
}

void Program::redirect() const {
  installAs(STDOUT_FILENO, "stdout", streams_.out);
  installAs(STDERR_FILENO, "stderr", streams_.err);
  installAs(STDIN_FILENO, "stdin", streams_.in);
}

void Program::changeDirectory() const {
  if (directory_.empty()) return;
  try {
    fs::Ops::setCWD(directory_.c_str());
  } catch (const Exception& error) {
    giveUp("\n\nCannot change working directory:\n", error.exStack());
  }
}

/// Returns with errno when the program cannot be started.
void Program::execute() const {
  if (envp_.empty()) {
    ::execvp(argv_.front(), argv_.data());
    return;
  }
  ::execve(argv_.front(), argv_.data(), envp_.data());
  if (errno != ENOENT) return;
  const auto found = std::find_if(candidates_.begin(), candidates_.end(),
                                  [](const std::string& file) { return fs::isExecutable(file.c_str()); });
  if (found == candidates_.end()) {
    errno = ENOENT;
    return;
  }
  argv_.front() = const_cast<char*>(found->c_str());
  ::execve(argv_.front(), argv_.data(), envp_.data());
}

void Program::giveUp(const char* what, const std::string& error) const {
  const std::string text =
      "In child process " + std::to_string(::getpid()) + " (" + argv_.front() + "):" + what + error;
  writeRaw(text.data(), text.size());
  ::_exit(125);
}

}  // namespace kes::proc
