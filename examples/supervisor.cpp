// Keeps a program running: restarts it whenever it ends, after a pause that doubles each time, and stops it
// when it is asked to stop itself (SIGTERM, SIGINT); it then has ten seconds for that.
//   supervisor PROGRAM [ARGUMENT...]
#include <algorithm>
#include <chrono>
#include <iostream>
#include <list>
#include <string>

#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"

namespace {

using Guard = kes::thread::LockGuardT<kes::thread::Condition>;
using kes::time::Milliseconds;

class Supervisor : public kes::IQuitHandler, public kes::proc::Child::Notification {
 public:
  explicit Supervisor(const std::list<std::string>& command) : child_(command) { child_.setNotify(this); }

  void run() {
    constexpr Milliseconds longest = std::chrono::minutes(1);
    Milliseconds pause(10);
    for (int attempt = 1; start(attempt); ++attempt) {
      std::cout << "attempt " << attempt << " ended, the next one follows in " << pause.count() << " ms"
                << std::endl;
      if (!sleep(pause)) return;
      pause = std::min(pause * 2, longest);
    }
  }

 private:
  /// Runs the program once; false when the supervisor has to stop.
  bool start(int attempt) {
    child_.setEnvironment({"ATTEMPT=" + std::to_string(attempt), "PATH=/usr/bin:/bin"});
    childEnded_ = false;
    child_.create(/*inPlace=*/false);
    const bool goesOn = awaitChild();
    if (goesOn) {
      child_.wait();
    } else {
      child_.terminate(std::chrono::seconds(10));
    }
    return goesOn;
  }

  bool awaitChild() const {
    const Guard guard(changed_);
    changed_.wait([this] { return quitting_ || childEnded_; });
    return !quitting_;
  }

  /// False when the pause was cut short because the supervisor has to stop.
  bool sleep(Milliseconds pause) const {
    const Guard guard(changed_);
    return !changed_.waitFor(pause, [this] { return quitting_; });
  }

  void handleQuit() override { note(quitting_); }
  void exited(kes::proc::Child&) override { note(childEnded_); }

  void note(bool& event) {
    const Guard guard(changed_);
    event = true;
    changed_.signalAll();
  }

  kes::thread::Condition changed_;
  bool quitting_ = false;
  bool childEnded_ = false;
  kes::proc::Child child_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: supervisor PROGRAM [ARGUMENT...]\n";
    return 1;
  }
  kes::KesPal runtime(/*quitHandling=*/true, /*forkPending=*/false, kes::Locale::System);
  Supervisor supervisor({argv + 1, argv + argc});
  runtime.addQuitHandler(supervisor);
  if (!runtime.quitRequested()) supervisor.run();  // somebody may have been faster than the line above
  runtime.delQuitHandler(supervisor);
  std::cout << "stopped" << std::endl;
}
