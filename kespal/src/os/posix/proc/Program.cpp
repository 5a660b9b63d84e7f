#include "os/posix/proc/Program.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "kespal/Helper.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/proc/Env.h"
#include "kespal/signal/Mask.h"
#include "os/posix/fs/Errors.h"
#include "os/posix/fs/Executable.h"
#include "os/posix/proc/RawMessage.h"
#include "sys/NoCancel.h"
#include "sys/Retry.h"

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

/// The error of a call whose number will be known later.
class CallError : public Raisable<CallError, OsError> {
 public:
  CallError() noexcept : Raisable(0) {}
  std::string text() const override { return {}; }
};

}  // namespace

Program::Program(const std::list<std::string>& arguments, const std::list<std::string>& environment,
                 const std::string& workingDirectory, const Streams& streams)
    : directory_(workingDirectory),
      redirections_{{{STDOUT_FILENO, "stdout", streams.out},
                     {STDERR_FILENO, "stderr", streams.err},
                     {STDIN_FILENO, "stdin", streams.in}}},
      argv_(nullTerminated(arguments)) {
  if (!environment.empty()) {
    envp_ = nullTerminated(environment);
    candidates_ = candidatesFor(arguments.front());
  }
  noMask_ = ofCall(signal::Mask::callSite);
  noProgram_ = ofCall({"src/os/posix/proc/Child", 318, "create"});
  if (!directory_.empty()) noDirectory_ = ofDirectory();
}

Program::Farewell Program::ofCall(const Site& site) {
  CallError error;
  locateAt(site, error);
  std::string stack = error.exStack();
  stack.pop_back();  // the end of the line that the error's text will be in
  return {"):\n" + stack, ")\n\n"};
}

Program::Farewell Program::ofDirectory() const {
  FsError error(directory_, 0);
  locateAt(fs::setCwdSite, error);
  return {"):\n\nCannot change working directory:\n" + error.exStack() + "\tReason: ", ").\n"};
}

void Program::become() const noexcept {
  const sys::NoCancel untilItIs;  // the calling thread's own: it may take the place of its process
  if (const int errnum = restoreMask()) giveUp(noMask_, errnum);
  for (const Redirection& each : redirections_) {
    if (each.make()) continue;
    const int errnum = errno;
    RawMessage().add("Error dup2()'ing ").add(each.name).add(": ").add(errnum).add("\n").send();
  }
  if (!enterDirectory()) giveUp(noDirectory_, errno);
  execute();
  giveUp(noProgram_, errno);
}

void Program::becomeSilently() const noexcept {
  if (restoreMask() != 0) return;
  for (const Redirection& each : redirections_) {
    if (!each.make()) return;
  }
  if (!enterDirectory()) return;
  char* const name = argv_.front();
  execute();
  argv_.front() = name;  // who tries again begins with it
}

int Program::restoreMask() noexcept {
  return ::pthread_sigmask(SIG_SETMASK, &signal::Set::m_original.native(), nullptr);
}

bool Program::Redirection::make() const noexcept {
  return fd == -1 || sys::retry([this] { return ::dup2(fd, target); }) != -1;
}

bool Program::enterDirectory() const noexcept {
  return directory_.empty() || ::chdir(directory_.c_str()) == 0;
}

/// Returns with errno when the program cannot be started.
void Program::execute() const noexcept {
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

void Program::giveUp(const Farewell& farewell, int errnum) const noexcept {
  RawMessage message;
  const char* text = errorTexts_.of(errnum);
  if (text == nullptr) {
    message.add("text: error getting error text from strerror_r!\n");
    text = "<unknown-error>";
  }
  message.add("In child process ").add(::getpid()).add(" (").add(argv_.front());
  message.add(farewell.before).add(text).add(" (").add(errnum).add(farewell.after).send();
  ::_exit(125);
}

}  // namespace kes::proc
