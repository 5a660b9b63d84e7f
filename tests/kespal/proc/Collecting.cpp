#include "kespal/proc/Collecting.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kespal/proc/WhichChildren.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/NoMemory.h"

namespace kes::test {

Collecting::Collecting() : shepherd(whichChildren()) {
  time::ClockBase::init();
  shepherd.start();
}

Collecting::~Collecting() { shepherd.stop(); }

pid_t Collecting::add(std::optional<int> code, bool starving) {
  const proc::Shepherd::Guard guard(shepherd.condition());
  const pid_t pid = real<Call::fork>();
  if (pid == 0) {
    if (code) ::_exit(*code);
    for (;;) ::pause();
  }
  std::optional<NoMemory> noMemory;
  if (starving) noMemory.emplace();
  shepherd.addNoLock(pid, nullptr);
  return pid;
}

void SlowToBeTold::exited(proc::Child&) {
  begun = true;
  hold.pass();
  ended = true;
}

/// The thread with this name, as far as the system keeps it; 0 when there is none.
std::uint64_t threadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) return std::stoull(task.path().filename());
  }
  return 0;
}

}  // namespace kes::test
