#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace kes::test {

/// How many threads the system knows of this process. Unlike the library's own count it includes those that
/// have not done their first step, and those that have done their last but are still on their way out.
inline std::size_t nativeThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

}  // namespace kes::test
