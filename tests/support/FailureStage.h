#pragma once

#include <pthread.h>
#include <termios.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/Calls.h"
#include "support/EveryFailure.h"
#include "support/FailureRun.h"
#include "support/Raised.h"
#include "support/Surroundings.h"

namespace kes::test {

/// One run of a play.
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

/// Plays a scenario once, in a child that was forked for it, and looks what is left. What it says goes to
/// `err`.
[[noreturn]] void perform(const Scenario& scenario, const Run& run, const std::string& folder, int err);

}  // namespace kes::test
