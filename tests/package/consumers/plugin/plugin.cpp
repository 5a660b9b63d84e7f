// A plugin that leaves threads of the libraries behind: the collector of children, which is at work when the
// plugin is unloaded. Of its own code nothing runs any more then, which is its host's business.
#include <sys/types.h>

#include "kesos/kesos.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"

namespace {

bool usesTheFlatLayer() {
  KesOsMutex* mutex = nullptr;
  return KesOsMutexCreate(&mutex, 0) == 1 && KesOsMutexClose(mutex) == 1;
}

bool catchesWhatALibraryThrows() {
  try {
    kes::proc::Child().create();  // without a program
  } catch (const kes::UsageError&) {
    return true;
  }
  return false;
}

}  // namespace

extern "C" pid_t begin(int input);
/// Starts a child that ends with its input, and abandons it; -1 when something else goes wrong.
extern "C" pid_t begin(int input) {
  if (!usesTheFlatLayer() || !catchesWhatALibraryThrows()) return -1;
  kes::proc::Child child({"/bin/cat"});
  child.setStdin(input);
  child.create();
  return child.pid();
}
