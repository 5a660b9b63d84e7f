// A program of somebody else that uses the flat layer: the owners here, the calls of C in the other file.
#include <iostream>

#include "kesos/kesos.hpp"

extern "C" KesOsProcess* startByOptions(const char* text);

int main() {
  kesos::Mutex mutex;
  if (!KesOsMutexCreateEx(mutex.put(), 0, nullptr) || !KesOsMutexWaitEx(mutex.get(), 1000, nullptr)) return 1;
  KesOsMutexRelease(mutex.get());
  const kesos::Process process(startByOptions("the flat layer"));
  unsigned int exitCode = 1;
  if (!process || !KesOsProcessWaitEx(process.get(), 10000, &exitCode, nullptr)) return 2;
  std::cout << "ended with " << exitCode << '\n';
  return static_cast<int>(exitCode);
}
