#pragma once

#include <termios.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "support/Calls.h"

// Every failure of an operation, injected in turn.
//
//   TEST(FileFailures, AFileIsOpened) {
//     expectSurvival(
//         {.operations = {"kes::fs::File::open"}, .raises = {raises("kes::FsError")}, .play = play});
//   }
//
//   void play(Stage& stage) {
//     const std::string path = stage / "it";
//     writeFile(path, "text");
//     File file;
//     stage.act([&] { file.open(path.c_str(), File::READ); });
//     stage.check(stage.succeeded() == (file.fd() >= 0), "it is held if that was said");
//     file.open(path.c_str(), File::READ);
//   }
//
// Before act() is the set-up, where nothing fails; in act() everything fails in turn; after it the object can
// be used.
//
// The play is run hundreds of times, each time in a forked child of its own. The first run counts which calls
// of the C library the operation makes, in all threads and children. Then the 1st, the 2nd, ... call of each
// fails, once and from there on, with every error of its manual; so does each allocation; a signal interrupts
// each call that one can interrupt; each transfer moves one byte, half, and all but one. The thread that acts
// is cancelled at each cancellation point, and another thread forks after each lock that is taken; the child
// plays the whole once more, or what it is given to play.
//
// A run is good if act() raised an error that the declaration names, with the refused call's errno, or gave
// false where failure is told so, or succeeded and all checks hold; and if afterwards no descriptor, thread,
// child, System V object or file lock is left, nor a file if it failed, the signal mask and the handlers are
// those from before, and all that within a time limit. All else is reported with the call, its number and its
// error.
//
// How to write one:
// - One operation, or a few that belong together; all their names as `nm -C` gives them without parameters. A
//   rule of the house compares them with what the libraries export.
// - Objects die with the play, by then nothing fails. A destructor that is to be tried, too, is called in
//   act(), by reset() of an optional.
// - act() may be called more than once. Its action returns nothing, or whether it succeeded.
// - check() what success means, and what holds after a failure: the old content is there, it works when it is
//   tried again. Where a refusal is an answer (ENOENT of stat() means "no"), ask stage.isRefused().
// - A thread or object that stays by design (a collector) is started first, then settle() takes it as given.
// - A terminal to be watched has to outlive the play.
// - The test program is made with CALLS all. It starts no threads of its own outside of plays.

namespace kes::test {

/// An error that an operation may raise: its dynamic type, and which errno besides that of the refused call.
struct Raises {
  std::string type;
  std::vector<int> errors{};
  std::string function{};  ///< of the throw site, where the declaration names it
};
inline Raises raises(std::string type, std::vector<int> errors = {}, std::string function = {}) {
  return {std::move(type), std::move(errors), std::move(function)};
}

class Stage;

struct Scenario {
  std::vector<std::string> operations;
  std::vector<Raises> raises{};  ///< std::bad_alloc where memory fails goes without saying
  std::function<void(Stage&)> play;
  bool mayLeaveFiles = false;                ///< when it failed, below the stage's directory
  std::vector<Call> spared{};                ///< calls that are not refused; say why
  std::vector<Call> misused{};               ///< calls of the kind Misused that are refused all the same
  std::vector<Call> mayEnd{};                ///< calls whose refusal may end the program, by abort()
  bool isCancelled = true;                   ///< whether it is tried what a cancellation does
  bool isForkedBeside = true;                ///< whether it is tried what a fork by another thread does
  std::chrono::milliseconds limit{20'000};   ///< for a run
  std::function<void(Stage&)> playForked{};  ///< for the child of a fork beside; the play itself unless given
};

/// What a play has to do with: its directory, what fails, what was found.
class Stage {
 public:
  struct State;
  explicit Stage(State& state) : state_(state) {}
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  /// A path in a directory that is new with every run.
  std::string operator/(const std::string& name) const;

  /// Does what may fail; whether it succeeded.
  template <typename Action>
  bool act(Action action) {
    if constexpr (std::is_void_v<std::invoke_result_t<Action>>) {
      return run([&] { return action(), true; });
    } else {
      return run([&] { return static_cast<bool>(action()); });
    }
  }
  /// Whether the last act() did.
  bool succeeded() const;
  /// Whether this call is what was refused in this run so far, by this error or, if that is 0, by any.
  bool isRefused(Call call, int error = 0) const;
  /// Whether memory is what fails in this run.
  bool isStarved() const;

  void check(bool holds, const std::string& what);
  /// What is there now may stay: threads, descriptors, ...
  void settle();
  /// The settings of this terminal have to be in the end what they are now.
  void watchTerminal(int fd);

 private:
  bool run(const std::function<bool()>& action);

  State& state_;
};

/// Plays a scenario with every failure; each one that it does not survive is a failure of the test.
void expectSurvival(const Scenario& scenario);
/// The same; gives what would be reported.
std::vector<std::string> complaintsAbout(const Scenario& scenario);

}  // namespace kes::test
