// Three programs in a row, each reading what the one before writes: seq 1 1000 | grep 7 | wc -l
#include <unistd.h>

#include <iostream>
#include <list>
#include <string>

#include "kespal/fs/Pipe.h"
#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/ExitStatus.h"

namespace {

using kes::fs::Pipe;
using kes::proc::Child;
using kes::proc::ExitStatus;

/// Starts a program and closes our copies of its streams at once. As long as somebody else could write into a
/// pipe, its reader would wait for more; and the next child would inherit what was handed to this one.
void start(Child& child, int in, int out) {
  child.setStdin(in);
  child.setStdout(out);
  child.create(/*inPlace=*/false);
  for (int fd : {in, out}) {
    if (fd != -1) ::close(fd);
  }
}

bool succeeded(Child& child) {
  const ExitStatus status(child.wait().status);
  if (!status.isSuccess()) std::cout << "a program " << status << '\n';
  return status.isSuccess();
}

}  // namespace

int main() {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  Child numbers({"seq", "1", "1000"}), sevens({"grep", "7"}), count({"wc", "-l"});
  // Both ends vanish on exec: a child gets only those that it is given.
  const Pipe first = Pipe::make(), second = Pipe::make();
  start(numbers, -1, first.writeEnd);
  start(sevens, first.readEnd, second.writeEnd);
  start(count, second.readEnd, -1);
  // Every child is waited for, whichever fails.
  bool all = true;
  for (Child* child : {&numbers, &sevens, &count}) all = succeeded(*child) && all;
  std::cout << (all ? "every program succeeded\n" : "");
  return all ? 0 : 1;
}
