// A program with two parts: one starts helpers by this library, the other is old, and calls system(). The
// helpers' collector is told to leave alone what it does not know, so that the old part gets its statuses.
#include <sys/wait.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"

namespace {

using kes::proc::Child;

/// The old part.
int answersOfSystem() {
  int right = 0;
  for (int code = 0; code < 20; ++code) {
    const int status = std::system(("exit " + std::to_string(code)).c_str());
    if (WIFEXITED(status) && WEXITSTATUS(status) == code) ++right;
  }
  return right;
}

}  // namespace

int main() {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  Child::setReaping(kes::proc::Reaping::Registered);
  Child helper({"/bin/sleep", "3600"});
  helper.create();
  std::cout << answersOfSystem() << " of 20 answers were right\n";
  std::cout << "the helper was " << helper.terminate(std::chrono::seconds(5)) << '\n';
}
