#include "support/DriverProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace kes::test {
namespace {

using namespace std::chrono_literals;

[[noreturn]] void execDriver(std::vector<std::string> words, const std::string& log, int standardInput) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing running
  const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  const int in = standardInput >= 0 ? standardInput : ::open("/dev/null", O_RDONLY);
  ::dup2(in, 0);
  ::dup2(out, 1);
  ::dup2(out, 2);
  words.insert(words.begin(), KESDRIVER);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ::execv(KESDRIVER, arguments.data());
  ::_exit(127);
}

pid_t start(const std::vector<std::string>& words, const std::string& log, int standardInput) {
  const pid_t pid = ::fork();
  if (pid == 0) execDriver(words, log, standardInput);
  if (pid < 0) throw std::runtime_error("no child");
  return pid;
}

/// Looks again and again, with a limit that only a hanging driver reaches.
bool eventually(const std::function<bool()>& condition) {
  const auto limit = std::chrono::steady_clock::now() + 120s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

}  // namespace

DriverProcess::DriverProcess(const std::vector<std::string>& options, int standardInput)
    : log_(directory_ / "kesdriver.log") {
  ::setenv("KES_IOREGISTRY", directory().c_str(), 1);
  std::vector<std::string> words = options;
  words.insert(words.end(), {"--dir", directory()});
  pid_ = start(words, log_, standardInput);
  const bool ready = eventually([this] { return std::filesystem::exists(socket()) || ended(); });
  if (!ready || pid_ == -1) throw std::runtime_error("kesdriver did not start: " + output());
}

DriverProcess::~DriverProcess() {
  if (!ended()) {
    signal(SIGKILL);
    wait();
  }
  ::unsetenv("KES_IOREGISTRY");
}

bool DriverProcess::ended() {
  if (pid_ != -1 && ::waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
  return pid_ == -1;
}

void DriverProcess::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

int DriverProcess::wait() {
  if (pid_ > 0) ::waitpid(pid_, &status_, 0);
  pid_ = -1;
  return status_;
}

int DriverProcess::stop() {
  signal(SIGTERM);
  const int status = wait();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool DriverProcess::waitForOutput(const std::function<bool(const std::string&)>& condition) {
  eventually([&] { return condition(output()) || ended(); });
  return condition(output());
}

bool DriverProcess::waitForOutput(const std::string& part) {
  return waitForOutput([&](const std::string& text) { return text.find(part) != std::string::npos; });
}

DriverRun runDriver(const std::vector<std::string>& options) {
  const TempDir directory;
  const std::string log = directory / "log";
  int status = 0;
  ::waitpid(start(options, log, -1), &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(log)};
}

std::string writeScript(const TempDir& directory, const std::string& text) {
  std::string path = directory / "script";
  writeFile(path, text);
  return path;
}

}  // namespace kes::test
