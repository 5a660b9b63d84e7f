#include "support/FailingProgram.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace kes::test {
namespace {

/// The plan, in a file of its own.
ProgramCalls* makePlan(const std::string& file, const Suffering& what) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ::ftruncate(fd, sizeof(ProgramCalls)) != 0) throw std::runtime_error("no file for a plan");
  void* const at = ::mmap(nullptr, sizeof(ProgramCalls), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (at == MAP_FAILED) throw std::runtime_error("no memory for a plan");
  auto* const plan = new (at) ProgramCalls;
  plan->number = what.number;
  plan->error = what.error;
  plan->isForGood = what.isForGood;
  plan->isShort = what.isShort;
  plan->isSleepless = true;
  plan->call = what.call == Call::Last ? -1 : static_cast<int>(what.call);
  return plan;
}

void becomeProgram(const std::vector<std::string>& command, const TempDir& dir, int in) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing running
  ::setsid();
  ::dup2(in >= 0 ? in : ::open("/dev/null", O_RDONLY), STDIN_FILENO);
  if (in >= 0) ::ioctl(STDIN_FILENO, TIOCSCTTY, 0);
  ::dup2(::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDOUT_FILENO);
  ::dup2(::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
  ::setenv("KES_PROGRAM_CALLS", (dir / "calls").c_str(), 1);
  ::setenv("LD_PRELOAD", PROGRAM_CALLS, 1);
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  ::execv(words[0], words.data());
  ::_exit(126);
}

}  // namespace

std::string described(const Suffering& what) {
  if (what.call == Call::Last) return "nothing";
  const char* const name = ::strerrorname_np(what.error);
  return std::string(infoOf(what.call).name) + " number " + std::to_string(what.number) +
         (what.isShort ? " moves one byte"
                       : std::string(" refused with ") + (name != nullptr ? name : "a code")) +
         (what.isForGood ? ", and all after it" : "");
}

FailingProgram::FailingProgram(const std::vector<std::string>& command, const Suffering& what, int in)
    : dir_(inMemory()), calls_(makePlan(dir_ / "calls", what)), pid_(::fork()) {
  if (pid_ == 0) becomeProgram(command, dir_, in);
  if (pid_ < 0) throw std::runtime_error("no child");
}

FailingProgram::~FailingProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::munmap(calls_, sizeof(ProgramCalls));
}

bool FailingProgram::endsWithin(int ms) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (pid_ > 0) {
    if (::waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
    if (pid_ > 0 && std::chrono::steady_clock::now() > limit) return false;
    if (pid_ > 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  return true;
}

void FailingProgram::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

int FailingProgram::code() const { return WIFSIGNALED(status_) ? -WTERMSIG(status_) : WEXITSTATUS(status_); }

namespace {

/// Plays all runs of one program.
class Sufferings {
 public:
  using Judge = std::function<std::string(FailingProgram&, const Suffering&)>;
  using Start = std::function<std::unique_ptr<FailingProgram>(const Suffering&)>;

  Sufferings(const Judge& judge, const Start& start) : judge_(judge), start_(start) {}

  void playAll(const std::vector<Call>& spared) {
    std::array<int, ProgramCalls::count> made{};
    const auto note = [&made](const FailingProgram& program) {
      for (std::size_t i = 0; i < made.size(); ++i) made[i] = program.made(static_cast<Call>(i));
    };
    play({}, note);
    for (std::size_t i = 0; i < made.size() && complaints_ < mostComplaints; ++i) {
      const auto call = static_cast<Call>(i);
      const bool isMeant = made[i] > 0 && (infoOf(call).traits & Misused) == 0;
      if (isMeant && std::ranges::count(spared, call) == 0) playCall(call);
    }
    std::cout << runs_ << " runs, " << calls_ << " calls\n";
  }

 private:
  static constexpr int mostComplaints = 25;

  void playCall(Call call) {
    const int* const first = infoOf(call).errors;
    if (*first == 0) return;
    ++calls_;
    for (const int* error = first; *error != 0; ++error) {
      play({call, 1, *error, false, false});
      play({call, 1, *error, true, false});
    }
    const int* error = first;
    for (int number = 2; play({call, number, *error, false, false}); ++number) {
      if (*++error == 0) error = first;
    }
    if ((infoOf(call).traits & Interrupted) != 0) playEach({call, 0, EINTR, false, false});
    if ((infoOf(call).traits & Short) != 0) playEach({call, 0, 0, false, true});
  }

  void playEach(Suffering what) {
    do ++what.number;
    while (play(what));
  }

  /// Whether the call was met.
  bool play(const Suffering& what, const std::function<void(const FailingProgram&)>& note = {}) {
    if (complaints_ == mostComplaints) return false;
    ++runs_;
    const auto program = start_(what);
    const std::string complaint = judge_(*program, what);
    if (note) note(*program);
    if (!complaint.empty()) {
      ++complaints_;
      ADD_FAILURE() << described(what) << ": " << complaint << "\nout: " << program->out()
                    << "\nerr: " << program->err();
    }
    return program->wasStruck();
  }

  const Judge& judge_;
  const Start& start_;
  int runs_ = 0, calls_ = 0, complaints_ = 0;
};

}  // namespace

void sufferEverything(const Sufferings::Judge& judge, const Sufferings::Start& start,
                      const std::vector<Call>& spared) {
  Sufferings(judge, start).playAll(spared);
}

}  // namespace kes::test
