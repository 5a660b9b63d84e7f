// Three programs in a row, each reading what the one before writes: seq 1 1000 | grep 7 | wc -l
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <list>
#include <string>

#include "kespal/error/OsError.h"
#include "kespal/fs/Pipe.h"
#include "kespal/kespal.h"
#include "kespal/proc/Child.h"

namespace {

using kes::fs::Pipe;
using kes::proc::Child;

/// Both ends vanish on exec: a child gets only those that it is given.
Pipe makePipe() {
  int ends[2];
  if (::pipe(ends) != 0) kes::raiseAt(KES_HERE, kes::OsError(errno));
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  Pipe pipe;
  pipe.readEnd = ends[0];
  pipe.writeEnd = ends[1];
  return pipe;
}

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
  const Child::ExitState state = child.wait();
  return WIFEXITED(state.status) && WEXITSTATUS(state.status) == 0;
}

}  // namespace

int main() {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  Child numbers({"seq", "1", "1000"}), sevens({"grep", "7"}), count({"wc", "-l"});
  const Pipe first = makePipe(), second = makePipe();
  start(numbers, -1, first.writeEnd);
  start(sevens, first.readEnd, second.writeEnd);
  start(count, second.readEnd, -1);
  // Every child is waited for, whichever fails.
  bool all = true;
  for (Child* child : {&numbers, &sevens, &count}) all = succeeded(*child) && all;
  std::cout << (all ? "every program succeeded" : "a program failed") << '\n';
  return all ? 0 : 1;
}
