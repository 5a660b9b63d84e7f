#include "support/EveryFailure.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <new>
#include <numeric>
#include <stdexcept>

#include "support/FailureRun.h"
#include "support/FailureStage.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

namespace kes::test {

namespace {

namespace stdfs = std::filesystem;
using std::chrono::steady_clock;

constexpr int errorsInFull = 6;  ///< after so many calls one error of each is enough
constexpr int fewCalls = 5;  ///< with a sanitizer, which makes a run dear, more calls are not tried in full
constexpr std::size_t mostComplaints = 25;

/// Plays one scenario over and over.
class Director {
 public:
  explicit Director(const Scenario& scenario) : scenario_(scenario), errors_(std::tmpfile()) {
    ::sigset_t child;
    ::sigemptyset(&child);
    ::sigaddset(&child, SIGCHLD);
    ::pthread_sigmask(SIG_BLOCK, &child, &mask_);
  }
  ~Director() {
    std::fclose(errors_);
    ::pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }
  Director(const Director&) = delete;
  Director& operator=(const Director&) = delete;

  std::vector<std::string> direct() {
    if (survives(Run{})) playAll();
    std::cout << joined(scenario_.operations) << ": " << runs_ << " runs, " << refusedCalls_
              << " with calls that failed, " << refusedAllocations_ << " with allocations that did"
              << std::endl;
    return complaints_;
  }

 private:
  void playAll() {
    std::array<int, static_cast<std::size_t>(Call::operatorNew) + 1> counts{};
    for (std::size_t i = 0; i < counts.size(); ++i) {
      const auto call = static_cast<Call>(i);
      counts[i] = call == Call::Last ? 0 : shared().board[call].made.load();
    }
    isBrief_ = isSanitized && std::accumulate(counts.begin(), counts.end(), 0) > fewCalls;
    for (std::size_t i = 0; i < counts.size() && complaints_.size() < mostComplaints; ++i) {
      const auto call = static_cast<Call>(i);
      if (counts[i] > 0) tryAll(call);
    }
  }

  void tryAll(Call call) {
    const unsigned traits = infoOf(call).traits;
    if ((traits & Misused) == 0 ? std::ranges::count(scenario_.spared, call) == 0
                                : std::ranges::count(scenario_.misused, call) != 0) {
      refuseEach(call);
    }
    if ((traits & Interrupted) != 0) inTurn({Run::Failing, call, 0, EINTR, 0, false});
    if ((traits & Short) != 0) {
      for (const std::size_t most : {std::size_t{1}, Shorten::half, Shorten::allButOne}) {
        if (!isBrief_ || most == Shorten::half) inTurn({Run::Moving, call, 0, 0, most, false});
        once({Run::Moving, call, 1, 0, most, true});
      }
    }
    if ((traits & Cancelled) != 0 && scenario_.isCancelled && !isSanitized)
      inTurn({Run::Cancelling, call, 0, 0, 0, false});
    if (call == Call::pthread_mutex_lock && scenario_.isForkedBeside && !isSanitized) {
      inTurn({Run::Forking, call, 0, 0, 0, false});
    }
  }

  void refuseEach(Call call) {
    const int* const first = infoOf(call).errors;
    if (*first == 0) return;
    const int* error = first;
    for (int number = 1; complaints_.size() < mostComplaints; ++number) {
      const bool isInFull = !isBrief_ && number <= errorsInFull;
      if (isInFull) error = first;
      do {
        if (!once({Run::Failing, call, number, *error, 0, false})) return;
        if (*error != EINTR && (!isBrief_ || number == 1))
          once({Run::Failing, call, number, *error, 0, true});
        if (*++error == 0) error = first;
      } while (isInFull && error != first);
    }
  }

  void inTurn(Run run) {
    for (run.number = 1; complaints_.size() < mostComplaints && once(run); ++run.number) {
    }
  }

  /// Whether the failure was met at all; there are no more calls of the kind otherwise.
  bool once(const Run& run) {
    survives(run);
    const bool isMet = shared().board[run.call].struck > 0;
    if (isMet && run.kind == Run::Failing) ++(isAllocation(run.call) ? refusedAllocations_ : refusedCalls_);
    return isMet;
  }

  bool survives(const Run& run) {
    shared().~RunReport();
    new (&shared()) RunReport;
    shared().board.suspended = true;
    board(&shared().board);
    ++runs_;
    const std::string folder = folders_ / ("run" + std::to_string(runs_));
    rewind(errors_);
    [[maybe_unused]] const int ignored = ::ftruncate(::fileno(errors_), 0);
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("no child");
    if (pid == 0) {
      ::pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
      perform(scenario_, run, folder, ::fileno(errors_));
    }
    const Aside fromHere;
    const std::string end = endOf(pid, run);
    std::error_code none;
    stdfs::remove_all(folder, none);
    stdfs::remove_all(folder + "-forked", none);
    if (end.empty() && !shared().complains) return true;
    complaints_.push_back(joined(scenario_.operations) + ": " + described(run) + ":\n  " +
                          (shared().complains ? shared().complaint.data() : "") + end + '\n' + written());
    return false;
  }

  /// Waits for a run; what is wrong with its end.
  std::string endOf(pid_t pid, const Run& run) const {
    ::sigset_t child;
    ::sigemptyset(&child);
    ::sigaddset(&child, SIGCHLD);
    const auto last = steady_clock::now() + scenario_.limit;
    for (;;) {
      int status = 0;
      if (::waitpid(pid, &status, WNOHANG) == pid) {
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && mayEnd(run)) return "";
        if (WIFSIGNALED(status)) return std::string(" ended by ") + ::strsignal(WTERMSIG(status));
        if (!shared().isOver) return " ended early, with code " + std::to_string(WEXITSTATUS(status));
        return "";
      }
      const auto left = last - steady_clock::now();
      if (left.count() <= 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return " hangs";
      }
      const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      const timespec wait{ns / 1'000'000'000, ns % 1'000'000'000};
      ::sigtimedwait(&child, nullptr, &wait);
    }
  }

  bool mayEnd(const Run& run) const {
    return run.kind == Run::Failing && std::ranges::count(scenario_.mayEnd, run.call) != 0;
  }

  std::string written() const {
    std::string text;
    std::array<char, 2000> buffer;
    const ssize_t count = ::pread(::fileno(errors_), buffer.data(), buffer.size(), 0);
    if (count > 0) text.assign(buffer.data(), static_cast<std::size_t>(count));
    return text;
  }

  static std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
  }

  const Scenario& scenario_;
  const TempDir folders_{inMemory()};
  std::FILE* const errors_;
  ::sigset_t mask_{};
  bool isBrief_ = false;  ///< tries one error of each call, and for good only from the first one on
  int runs_ = 0, refusedCalls_ = 0, refusedAllocations_ = 0;
  std::vector<std::string> complaints_;
};

}  // namespace

std::vector<std::string> complaintsAbout(const Scenario& scenario) {
  CallBoard& before = board();
  const sys::AtEnd leaving([&before] { board(&before); });
  return Director(scenario).direct();
}

void expectSurvival(const Scenario& scenario) {
  KES_SKIP_UNDER_THREAD_SANITIZER("starts no thread in a forked child");
  for (const std::string& complaint : complaintsAbout(scenario)) ADD_FAILURE() << complaint;
}

}  // namespace kes::test
