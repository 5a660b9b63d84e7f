#include "support/FailureStage.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>

#include <cstddef>

extern "C" {
std::size_t __sanitizer_get_current_allocated_bytes();  // its header is clang's

/// Freed memory is kept for a while, and every run is a child that copies what it touches.
const char* __asan_default_options() { return "quarantine_size_mb=16"; }
}
#endif

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>

#include "sys/AtEnd.h"
#include "sys/NoCancel.h"

namespace kes::test {

namespace stdfs = std::filesystem;
using std::chrono::steady_clock;

namespace {

[[noreturn]] void playAsForked(const Scenario& scenario, const std::string& folder, int done) {
  board().suspended = true;
  Stage::State state{scenario, Run{}, folder, true};
  Stage stage(state);
  try {
    (scenario.playForked ? scenario.playForked : scenario.play)(stage);
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

#ifdef __SANITIZE_ADDRESS__
/// Only then a process may trace itself, as the search for leaks does.
bool hasOneIdentity() {
  std::array<uid_t, 3> users{};
  std::array<gid_t, 3> groups{};
  ::getresuid(&users[0], &users[1], &users[2]);
  ::getresgid(&groups[0], &groups[1], &groups[2]);
  const auto isAnother = std::not_equal_to<>();
  return std::ranges::adjacent_find(users, isAnother) == users.end() &&
         std::ranges::adjacent_find(groups, isAnother) == groups.end();
}

/// Whether memory was lost since there were so many bytes of it. The search stops every thread and reads all
/// memory, so nobody searches where there is as much as before.
bool hasLeaked(std::size_t bytesBefore) {
  return __sanitizer_get_current_allocated_bytes() != bytesBefore && hasOneIdentity() &&
         __lsan_do_recoverable_leak_check() != 0;
}
#endif

}  // namespace

[[noreturn]] void perform(const Scenario& scenario, const Run& run, const std::string& folder, int err) {
  ::dup2(err, STDERR_FILENO);
  Stage::State state{scenario, run, folder, false};
#ifdef __SANITIZE_ADDRESS__
  const std::size_t bytesBefore = __sanitizer_get_current_allocated_bytes();
#endif
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
  if (run.kind != Run::Cancelling && hasLeaked(bytesBefore)) complain("left behind: memory");
#endif
  shared().isOver = true;
  std::cerr.flush();
  ::_exit(0);
}

}  // namespace kes::test
