#include "support/EveryFailure.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <numeric>
#include <optional>
#include <set>
#include <thread>

#include "support/CallBoard.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"

namespace kes::test {

namespace {

namespace stdfs = std::filesystem;
using std::chrono::steady_clock;

constexpr int errorsInFull = 6;  ///< after so many calls one error of each is enough
constexpr int fewCalls = 5;  ///< with a sanitizer, which makes a run dear, more calls are not tried in full
constexpr std::size_t mostComplaints = 25;

/// What fails in a run.
struct Run {
  enum Kind { Counting, Failing, Moving, Cancelling, Forking };
  Kind kind = Counting;
  Call call = Call::Last;
  int number = 0;
  int error = 0;
  std::size_t most = 0;
  bool isForGood = false;
};

std::string described(const Run& run) {
  if (run.kind == Run::Counting) return "nothing";
  const std::string which = std::string(infoOf(run.call).name) + " number " + std::to_string(run.number);
  const std::string times = run.isForGood ? ", and all after it" : "";
  switch (run.kind) {
    case Run::Failing: {
      const char* const name = ::strerrorname_np(run.error);
      return which + " refused with " + (name != nullptr ? name : std::to_string(run.error)) + times;
    }
    case Run::Moving:
      return which + " moves " +
             (run.most == Shorten::half ? "half"
                                        : (run.most == Shorten::allButOne ? "all but one" : "one byte")) +
             times;
    case Run::Cancelling:
      return "cancelled at " + which;
    default:
      return "forked after " + which;
  }
}

/// What a child says to the parent.
struct Shared {
  CallBoard board;
  std::atomic<bool> isOver{false};
  std::atomic<bool> complains{false};
  std::array<char, 4000> complaint{};
};

/// Memory that children share.
Shared& shared() {
  static Shared* const memory = [] {
    void* const at =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED) throw std::bad_alloc();
    return new (at) Shared;
  }();
  return *memory;
}

/// The first one counts: what follows is mostly its consequence.
void complain(const std::string& what) {
  if (shared().complains.exchange(true)) return;
  const std::size_t size = std::min(what.size(), shared().complaint.size() - 1);
  std::copy_n(what.data(), size, shared().complaint.data());
  shared().complaint[size] = 0;
}

bool isAllocation(Call call) {
  constexpr Call calls[] = {Call::operatorNew, Call::malloc, Call::calloc, Call::strdup};
  return std::ranges::count(calls, call) != 0;
}

bool isMemory(const Run& run) {
  return run.kind == Run::Failing && (run.error == ENOMEM || isAllocation(run.call));
}

// --- what is left

int threads() {
  int found = 0;
  for ([[maybe_unused]] const auto& task : stdfs::directory_iterator("/proc/self/task")) ++found;
  return found;
}

int systemVObjects() {
  shm_info segments{};
  seminfo semaphores{};
  ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&segments));
  ::semctl(0, 0, SEM_INFO, &semaphores);
  return segments.used_ids + semaphores.semusz;
}

bool hasChildren() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

struct Surroundings {
  std::set<int> descriptors;
  int threadCount = 0;
  bool children = false;
  int objects = 0;
  sigset_t mask{};
  std::array<void (*)(int), 32> handlers{};

  static Surroundings now() {
    Surroundings found;
    for (int fd = 0; fd < 128; ++fd) {
      if (::fcntl(fd, F_GETFD) != -1) found.descriptors.insert(fd);
    }
    found.threadCount = threads();
    found.children = hasChildren();
    found.objects = systemVObjects();
    ::pthread_sigmask(SIG_SETMASK, nullptr, &found.mask);
    for (int number = 1; number < 32; ++number) {
      struct sigaction action {};
      ::sigaction(number, nullptr, &action);
      found.handlers[static_cast<std::size_t>(number)] = action.sa_handler;
    }
    return found;
  }

  /// What is there now and was not before.
  std::string addedTo(const Surroundings& before) const {
    std::string text;
    for (const int fd : descriptors) {
      if (before.descriptors.count(fd) == 0) text += " a descriptor (" + std::to_string(fd) + ")";
    }
    if (threadCount > before.threadCount) text += " a thread";
    if (children && !before.children) text += " a child";
    if (objects > before.objects) text += " a System V object";
    for (int number = 1; number < 32; ++number) {
      if (::sigismember(&mask, number) != ::sigismember(&before.mask, number)) {
        text += " another signal mask (" + std::to_string(number) + ")";
      }
      const auto at = static_cast<std::size_t>(number);
      if (handlers[at] != before.handlers[at]) text += " another handler of signal " + std::to_string(number);
    }
    return text;
  }
};

std::set<std::string> filesIn(const std::string& folder) {
  const sys::NoCancel untilRead;
  std::set<std::string> found;
  std::error_code error;
  for (stdfs::recursive_directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    found.insert(at->path().string());
  }
  return found;
}

bool hasLocks(const std::string& folder) {
  return std::ranges::any_of(filesIn(folder), [](const std::string& path) {
    if (!stdfs::is_regular_file(stdfs::symlink_status(path))) return false;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool isLocked = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return isLocked;
  });
}

}  // namespace

struct Stage::State {
  const Scenario& scenario;
  const Run run;
  const std::string folder;
  const bool isForked;  ///< the play of a child that was forked beside
  bool hasFolder = false;
  bool hasSucceeded = false;
  bool wasPlayed = false;
  pthread_t actor = ::pthread_self();
  Surroundings before = Surroundings::now();
  std::vector<std::pair<int, termios>> terminals{};
  std::unique_ptr<Interlude> interlude{};
  std::thread forker{};

  void begin();
  void end() {
    if (!isForked) board().suspended = true;
  }
  void judge(const Raised& raised) const;
  void forkBeside();
  void lookAround() const;
};

namespace {

[[noreturn]] void playAsForked(const Scenario& scenario, const std::string& folder, int done) {
  board().suspended = true;
  Stage::State state{scenario, Run{}, folder, true};
  Stage stage(state);
  try {
    scenario.play(stage);
  } catch (const std::exception& error) {
    complain(std::string("the forked child's play was left: ") + error.what());
  }
  const char word = 'x';
  [[maybe_unused]] const ssize_t ignored = ::write(done, &word, 1);
  ::_exit(0);
}

}  // namespace

/// Forks in another thread, while this one holds what it holds. Goes on as soon as the child has come to its
/// end, or when it is clear that the fork itself waits for this thread.
void Stage::State::forkBeside() {
  const sys::NoCancel untilForked;
  static std::atomic<bool> isDone;
  isDone = false;
  forker = std::thread([this] {
    const Aside fromHere;
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return complain("no pipe");
    const pid_t pid = ::fork();
    if (pid == 0) playAsForked(scenario, folder + "-forked", ends[1]);
    ::close(ends[1]);
    char word = 0;
    pollfd end{ends[0], POLLIN, 0};
    if (::poll(&end, 1, static_cast<int>(scenario.limit.count()) / 2) != 1) {
      complain("the child hangs that was forked by another thread");
      ::kill(pid, SIGKILL);
    } else if (::read(ends[0], &word, 1) != 1) {
      complain("the child that was forked by another thread ended early");
    }
    ::close(ends[0]);
    while (::waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
    isDone = true;
  });
  for (int i = 0; i < 200 && !isDone; ++i) std::this_thread::sleep_for(std::chrono::microseconds(100));
}

void Stage::State::begin() {
  if (isForked) return;
  CallRecord* const record = run.call != Call::Last ? &board()[run.call] : nullptr;
  if (!wasPlayed && record != nullptr) {
    const int times = run.isForGood ? -1 : 1;
    if (run.kind == Run::Failing) {
      record->error = run.error;
      record->skip = run.number - 1;
      record->times = times;
    } else if (run.kind == Run::Moving) {
      record->most = run.most;
      record->shortSkip = run.number - 1;
      record->shortTimes = times;
    } else if (run.kind == Run::Cancelling) {
      interlude = std::make_unique<Interlude>(
          Interlude::Before, run.call,
          [this, record] {
            record->struck = 1;
            if (::pthread_equal(actor, ::pthread_self()) != 0) ::pthread_cancel(actor);
          },
          run.number);
    } else if (run.kind == Run::Forking) {
      interlude = std::make_unique<Interlude>(
          Interlude::After, run.call,
          [this, record] {
            record->struck = 1;
            forkBeside();
          },
          run.number);
    }
  }
  wasPlayed = true;
  board().suspended = false;
}

/// Whether an error is one that the declaration names.
void Stage::State::judge(const Raised& raised) const {
  if (raised.type == "std::bad_alloc" && isMemory(run)) return;
  const bool named = std::ranges::any_of(scenario.raises, [&](const Raises& allowed) {
    return allowed.type == raised.type &&
           (raised.errnum == 0 || raised.errnum == run.error ||
            std::ranges::count(allowed.errors, raised.errnum) != 0) &&
           (allowed.function.empty() || allowed.function == raised.function);
  });
  if (named && run.kind != Run::Counting && !isForked) return;
  std::ostringstream text;
  text << (run.kind == Run::Counting ? "raised though nothing failed: " : "raised what is not declared: ")
       << raised;
  complain(text.str());
}

/// What the play has left. Threads and children may be on their way out.
void Stage::State::lookAround() const {
  std::string added;
  const auto patience = steady_clock::now() + scenario.limit / 10;
  do {
    added = Surroundings::now().addedTo(before);
    if (!added.empty()) std::this_thread::sleep_for(std::chrono::microseconds(200));
  } while (!added.empty() && steady_clock::now() < patience);
  if (!added.empty()) complain("left behind:" + added);
  if (hasFolder && hasLocks(folder)) complain("left behind: the lock of a file");
  for (const auto& [fd, settings] : terminals) {
    termios now{};
    if (::tcgetattr(fd, &now) != 0 || std::memcmp(&now, &settings, sizeof now) != 0) {
      complain("left behind: other settings of a terminal");
    }
  }
}

std::string Stage::operator/(const std::string& name) const {
  if (!state_.hasFolder) state_.hasFolder = stdfs::create_directories(state_.folder);
  return state_.folder + '/' + name;
}

bool Stage::run(const std::function<bool()>& action) {
  const auto files = state_.hasFolder ? filesIn(state_.folder) : std::set<std::string>();
  {
    const sys::AtEnd ending([this] { state_.end(); });
    state_.hasSucceeded = false;
    Raised raised;
    state_.begin();
    try {
      state_.hasSucceeded = action();
      state_.end();
      if (!state_.hasSucceeded && (state_.run.kind == Run::Counting || state_.isForked)) {
        complain("failed though nothing did");
      }
    } catch (const std::exception&) {
      state_.end();
      raised = raisedBy([] { throw; });
    }
    if (!raised.type.empty()) state_.judge(raised);
  }
  // A cancellation that waits for a chance has it now, and not where the stage or the play looks around.
  if (state_.run.kind == Run::Cancelling) ::pthread_testcancel();
  if (!state_.hasSucceeded && state_.hasFolder && !state_.scenario.mayLeaveFiles) {
    for (const std::string& path : filesIn(state_.folder)) {
      if (files.count(path) == 0) complain("left behind: " + path.substr(state_.folder.size() + 1));
    }
  }
  return state_.hasSucceeded;
}

bool Stage::succeeded() const { return state_.hasSucceeded; }

bool Stage::isRefused(Call call, int error) const {
  return state_.run.kind == Run::Failing && state_.run.call == call &&
         (error == 0 || error == state_.run.error) && board()[call].struck > 0;
}

bool Stage::isStarved() const { return isMemory(state_.run); }

void Stage::check(bool holds, const std::string& what) {
  if (!holds) complain("does not hold: " + what);
}

void Stage::settle() { state_.before = Surroundings::now(); }

void Stage::watchTerminal(int fd) {
  termios settings{};
  if (::tcgetattr(fd, &settings) != 0) complain("no terminal to watch");
  state_.terminals.emplace_back(fd, settings);
}

namespace {

void play(Stage::State& state) {
  state.actor = ::pthread_self();
  Stage stage(state);
  try {
    state.scenario.play(stage);
  } catch (const std::exception& error) {
    complain(std::string("left the play: ") + error.what());
  }
}

/// Only then a process may trace itself, as the search for leaks does.
[[maybe_unused]] bool hasOneIdentity() {
  std::array<uid_t, 3> users{};
  std::array<gid_t, 3> groups{};
  ::getresuid(&users[0], &users[1], &users[2]);
  ::getresgid(&groups[0], &groups[1], &groups[2]);
  const auto isAnother = std::not_equal_to<>();
  return std::ranges::adjacent_find(users, isAnother) == users.end() &&
         std::ranges::adjacent_find(groups, isAnother) == groups.end();
}

[[noreturn]] void perform(const Scenario& scenario, const Run& run, const std::string& folder, int err) {
  ::dup2(err, STDERR_FILENO);
  Stage::State state{scenario, run, folder, false};
  if (run.kind == Run::Cancelling) {
    // Signals are the play's business: this thread, which the play has not in other runs, takes none.
    ::sigset_t every;
    ::sigfillset(&every);
    ::pthread_sigmask(SIG_SETMASK, &every, nullptr);
    pthread_t thread{};
    ::pthread_create(
        &thread, nullptr,
        [](void* argument) -> void* {
          auto& played = *static_cast<Stage::State*>(argument);
          ::pthread_sigmask(SIG_SETMASK, &played.before.mask, nullptr);
          return play(played), nullptr;
        },
        &state);
    ::pthread_join(thread, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &state.before.mask, nullptr);
  } else {
    play(state);
  }
  state.end();
  state.interlude.reset();
  if (state.forker.joinable()) state.forker.join();
  state.lookAround();
#ifdef __SANITIZE_ADDRESS__
  if (run.kind != Run::Cancelling && hasOneIdentity() && __lsan_do_recoverable_leak_check() != 0) {
    complain("left behind: memory");
  }
#endif
  shared().isOver = true;
  std::cerr.flush();
  ::_exit(0);
}

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
    shared().~Shared();
    new (&shared()) Shared;
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
    const std::string end = endOf(pid);
    std::error_code none;
    stdfs::remove_all(folder, none);
    stdfs::remove_all(folder + "-forked", none);
    if (end.empty() && !shared().complains) return true;
    complaints_.push_back(joined(scenario_.operations) + ": " + described(run) + ":\n  " +
                          (shared().complains ? shared().complaint.data() : "") + end + '\n' + written());
    return false;
  }

  /// Waits for a run; what is wrong with its end.
  std::string endOf(pid_t pid) const {
    ::sigset_t child;
    ::sigemptyset(&child);
    ::sigaddset(&child, SIGCHLD);
    const auto last = steady_clock::now() + scenario_.limit;
    for (;;) {
      int status = 0;
      if (::waitpid(pid, &status, WNOHANG) == pid) {
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
