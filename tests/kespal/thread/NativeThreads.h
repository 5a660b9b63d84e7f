#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

#include "kespal/thread/Thread.h"
#include "support/Eventually.h"
#include "support/Sanitizer.h"

namespace kes::test {

inline std::ptrdiff_t tasks() {
  const std::filesystem::directory_iterator all("/proc/self/task");
  return std::distance(begin(all), end(all));
}

/// How many the system knows before the program begins: an emulator that runs it has a thread of its own.
inline const std::ptrdiff_t tasksAtFirst = tasks();

/// Waits until the system knows of the main thread alone. Unlike the library's own count this one includes
/// threads that have not done their first step, and those that have done their last and are on their way
/// out. The thread sanitizer keeps a thread of its own, and learns from the library's count alone that what
/// the threads did is done.
inline bool aloneInTheEnd() {
  return eventually([] {
    return tasks() <= (threadSanitizer ? 2 : tasksAtFirst) && thread::BasicThread::activeThreads() == 0;
  });
}

}  // namespace kes::test
