#pragma once

#include <sys/stat.h>

#include <ctime>

/// What the systems do differently about files.
namespace kes::os {

/// Brings a file to the device, and there out of its cache where the system can ask for that. Answers as
/// fsync() does. A cancellation point.
int syncToDevice(int fd);

/// When the file was read and changed last, in the order of futimens().
struct FileTimes {
  timespec times[2];
};
FileTimes timesOf(const struct stat& status) noexcept;

/// Makes a pipe, its read end first, both ends close-on-exec: at once, where the system can do that. Answers
/// as pipe() does, and leaves nothing behind when it fails.
int makePipe(int (&ends)[2]) noexcept;

}  // namespace kes::os
