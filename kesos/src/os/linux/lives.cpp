#include "lives.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::os {

namespace {

/// Reads a process's line of /proc; null when it cannot be read.
template <std::size_t size>
char* readStatus(pid_t pid, char (&line)[size]) noexcept {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  const sys::Descriptor file(sys::retry([&] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
  if (!file) return nullptr;
  const ssize_t count = sys::retry([&] { return ::read(file.get(), line, size - 1); });
  if (count <= 0) return nullptr;
  line[count] = '\0';
  return line;
}

/// A field that stands so many blanks behind another.
const char* skip(const char* field, int blanks) noexcept {
  for (; field != nullptr && blanks > 0; --blanks) {
    field = std::strchr(field, ' ');
    if (field != nullptr) ++field;
  }
  return field;
}

}  // namespace

// The state, the 3rd field, stands behind the name, which is in parentheses and may hold anything. From there
// it is 17 fields to the number of threads and 19 to the start. A first thread that has ended looks like a
// process that has, but for the number of threads.
Life lifeOf(pid_t pid) noexcept {
  const sys::NoCancel untilKnown;
  if (::kill(pid, 0) != 0 && errno == ESRCH) return {true, 0};
  char line[1024];
  const char* name = readStatus(pid, line) != nullptr ? std::strrchr(line, ')') : nullptr;
  const char* state = skip(name, 1);
  const char* threads = skip(state, 17);
  const char* start = skip(threads, 2);
  if (start == nullptr) return {false, 0};
  const bool hasEnded = (*state == 'Z' || *state == 'X') && std::strtol(threads, nullptr, 10) <= 1;
  return {hasEnded, std::strtoull(start, nullptr, 10)};
}

}  // namespace kes::os
