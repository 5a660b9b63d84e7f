#include "os/posix/proc/Program.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string_view>

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

using Step = StartFailure::Step;

namespace {

std::vector<char*> nullTerminated(const std::list<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

/// The files that a search along a path would try.
std::vector<std::string> candidatesAlong(const std::string& path, const std::string& program) {
  std::vector<std::string> files;
  helper::split(path, ':', files, /*strip=*/false, /*keepEmpty=*/false);
  for (std::string& file : files) file += '/' + program;
  return files;
}

/// Those of a search along this process's PATH.
std::vector<std::string> candidatesFor(const std::string& program) {
  if (program.starts_with('/')) return {program};
  std::string path;
  proc::Env::get("PATH", path);
  return candidatesAlong(path, program);
}

/// Those of a search along the PATH of an environment.
std::vector<std::string> candidatesWithin(const std::list<std::string>& environment,
                                          const std::string& program) {
  if (program.find('/') != program.npos) return {program};
  constexpr std::string_view variable = "PATH=";
  const auto path = std::find_if(environment.begin(), environment.end(),
                                 [=](const std::string& text) { return text.starts_with(variable); });
  return path != environment.end() ? candidatesAlong(path->substr(variable.size()), program)
                                   : std::vector<std::string>{};
}

/// The error of a call whose number will be known later.
class CallError : public Raisable<CallError, OsError> {
 public:
  CallError() noexcept : Raisable(0) {}
  std::string text() const override { return {}; }
};

}  // namespace

Program::Program(const Plan& plan)
    : directory_(plan.workingDirectory),
      redirections_{{{STDOUT_FILENO, "stdout", plan.streams.out},
                     {STDERR_FILENO, "stderr", plan.streams.err},
                     {STDIN_FILENO, "stdin", plan.streams.in}}},
      user_(plan.user),
      searchesOwnPath_(plan.searchesOwnPath),
      argv_(nullTerminated(plan.arguments)) {
  if (!plan.inheritsEnvironment) {
    envp_ = nullTerminated(plan.environment);
    candidates_ = searchesOwnPath_ ? candidatesWithin(plan.environment, plan.arguments.front())
                                   : candidatesFor(plan.arguments.front());
  }
  noMask_ = ofCall(signal::Mask::callSite);
  noProgram_ = ofCall({"src/os/posix/proc/Child", 318, "create"});
  if (user_ != nullptr) noUser_ = ofCall(KES_HERE_IN("changeUser"), "\nCannot become another user:\n");
  if (!directory_.empty()) noDirectory_ = ofDirectory();
}

Program::Farewell Program::ofCall(const Site& site, const char* heading) {
  CallError error;
  locateAt(site, error);
  std::string stack = error.exStack();
  stack.pop_back();  // the end of the line that the error's text will be in
  return {std::string("):\n") + heading + stack, ")\n\n"};
}

Program::Farewell Program::ofDirectory() const {
  FsError error(directory_, 0);
  locateAt(fs::setCwdSite, error);
  return {"):\n\nCannot change working directory:\n" + error.exStack() + "\tReason: ", ").\n"};
}

void Program::become(const StartNote& note) const noexcept {
  const sys::NoCancel untilItIs;  // the calling thread's own: it may take the place of its process
  if (const int errnum = restoreMask()) giveUp(note, {Step::SignalMask, errnum, noMask_});
  redirect(note);
  if (const auto failure = changeUser()) giveUp(note, *failure);
  if (!enterDirectory()) giveUp(note, {Step::Directory, errno, noDirectory_});
  execute();
  giveUp(note, {Step::Exec, errno, noProgram_});
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

void Program::redirect(const StartNote& note) const noexcept {
  for (const Redirection& each : redirections_) {
    if (each.make()) continue;
    const int errnum = errno;
    note.write(Step::Redirection, errnum);
    RawMessage().add("Error dup2()'ing ").add(each.name).add(": ").add(errnum).add("\n").send();
  }
}

bool Program::Redirection::make() const noexcept {
  return fd == -1 || sys::retry([this] { return ::dup2(fd, target); }) != -1;
}

/// The groups go first, and root last: without it nothing else may be given up.
std::optional<Program::Failure> Program::changeUser() const noexcept {
  if (user_ == nullptr) return std::nullopt;
  if (setGroups(user_->groups) != 0) return Failure{Step::Groups, errno, noUser_};
  if (!changeGroupIds(user_->gid)) return Failure{Step::GroupId, errno, noUser_};
  if (!changeAllUserIds(user_->uid)) return Failure{Step::UserId, errno, noUser_};
  if (!isChangedForGood(user_->uid, user_->gid)) return Failure{Step::WayBack, EPERM, noUser_};
  return std::nullopt;
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
  if (searchesOwnPath_) return executeAlongOwnPath();
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

/// Tries one file after the other, as execvp() does. That one may not be executed is said when none may.
void Program::executeAlongOwnPath() const noexcept {
  int errnum = ENOENT;
  for (const std::string& file : candidates_) {
    ::execve(file.c_str(), argv_.data(), envp_.data());
    if (errno != ENOENT && errno != ENOTDIR && errno != EACCES) return;
    if (errno == EACCES) errnum = EACCES;
  }
  errno = errnum;
}

/// The note first: the message may have to wait for whoever reads it.
void Program::giveUp(const StartNote& note, const Failure& failure) const noexcept {
  const auto& [step, errnum, farewell] = failure;
  note.write(step, errnum);
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
