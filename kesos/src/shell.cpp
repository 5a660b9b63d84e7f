#include "shell.h"

#include <sys/wait.h>

#include <algorithm>
#include <exception>
#include <list>
#include <memory>

#include "kesos/processes.h"
#include "kespal/Helper.h"
#include "kespal/fs/Ops.h"

using kes::proc::Child;

namespace {

/// Keeps an object from being destroyed.
union Everlasting {
  constexpr Everlasting() : cleaner() {}
  ~Everlasting() {}  // NOLINT(modernize-use-equals-default): that would be deleted

  kes::kesos::AsyncChildCleaner cleaner;
};

constinit Everlasting everlasting;

}  // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier)
constinit kes::kesos::AsyncChildCleaner& _async_child_cleaner = everlasting.cleaner;

namespace {

constexpr char separators[] = " \t\n";

/// The path with "\\ " for every separator in it.
std::string escaped(std::string path) {
  kes::helper::replace_chars(path, separators, "\\ ");
  return path;
}

int runAndWait(const std::list<std::string>& arguments) {
  Child child(arguments);
  child.create();
  const Child::ExitState state = child.wait();
  if (!state.finished) return -1;
  return WIFSIGNALED(state.status) ? 255 : WEXITSTATUS(state.status);
}

/// Starts a child that belongs to the cleaner from then on, and may be gone any moment.
int runAlone(const std::list<std::string>& arguments) {
  auto child = std::make_unique<Child>(arguments);
  child->setNotify(&_async_child_cleaner);
  child->create();
  static_cast<void>(child.release());
  return 0;
}

/// The exit code of a command line; -1 when it could not be run.
int run(const char* cmd, unsigned int flags) {
  try {
    const std::string command = kes::kesos::shellCommand(cmd);
    if (command.empty()) return -1;
    const std::list<std::string> arguments{"/bin/sh", "-c", command};
    return (flags & KESOS_PROCESS_ASYNC) != 0 ? runAlone(arguments) : runAndWait(arguments);
  } catch (const std::exception&) {
    return -1;
  }
}

}  // namespace

namespace kes::kesos {

void AsyncChildCleaner::exited(Child& child) {
  const std::unique_ptr<Child> owned(&child);
  child.wait();
}

void AsyncChildCleaner::released(Child& child) { delete &child; }

std::string shellCommand(std::string_view line) {
  std::size_t from = 0;
  if (line.starts_with('"')) {
    const std::size_t closing = line.find('"', 1);
    if (closing != std::string_view::npos) from = closing;
  }
  const std::size_t end = line.find_first_of(separators, from);
  std::string program(line.substr(0, end));
  helper::makeStripped(program, '"');
  const std::string path = fs::Ops::which(program.c_str());
  if (path.empty()) return {};
  const std::size_t rest = line.find_first_not_of(separators, std::min(end, line.size()));
  if (rest == std::string_view::npos) return escaped(path);
  return escaped(path) + ' ' + std::string(line.substr(rest));
}

}  // namespace kes::kesos

int KesOsCreateProcess(const char* cmd) { return KesOsCreateProcessEx(cmd, 0, nullptr); }

int KesOsCreateProcessSw(const char* cmd, unsigned int flags) {
  return KesOsCreateProcessEx(cmd, flags, nullptr);
}

int KesOsCreateProcessEx(const char* cmd, unsigned int flags, int* exitCode) {
  int ownCode = 0;
  int& code = exitCode != nullptr ? *exitCode : ownCode;
  code = -1;  // that stays when the thread is cancelled in the wait
  if (cmd != nullptr && *cmd != '\0') code = run(cmd, flags);
  return code == 0 ? 1 : 0;
}
