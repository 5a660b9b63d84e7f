// Runs checks of a machine, each a shell command with a time limit, and says what is wrong. A check that
// hangs holds up neither the others nor the end.
//   health_checks LIMIT_IN_MS COMMAND...
#include <iostream>
#include <string>

#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Output.h"

namespace {

using kes::proc::Child;
using kes::proc::Output;

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

/// Runs one check; whether all is well.
bool isWell(const std::string& command, kes::time::Milliseconds limit) {
  Child check({"/bin/sh", "-c", command});
  const Output output = kes::proc::captureOutput(
      check, {.joined = true, .most = 4096, .limit = limit, .grace = std::chrono::milliseconds(100)});
  const bool well = output.status.isSuccess() && !output.timedOut;
  std::cout << (well ? "well" : "NOT WELL") << ": " << command;
  if (output.timedOut) std::cout << ": took too long";
  if (!well) std::cout << " (" << output.status << ") " << firstLine(output.out);
  std::cout << std::endl;
  return well;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: health_checks LIMIT_IN_MS COMMAND...\n";
    return 2;
  }
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  const kes::time::Milliseconds limit(std::stoi(argv[1]));
  int wrong = 0;
  for (int number = 2; number < argc; ++number) wrong += isWell(argv[number], limit) ? 0 : 1;
  std::cout << wrong << " of " << argc - 2 << " are not well\n";
}
