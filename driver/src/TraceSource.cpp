#include "TraceSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>

#include "sys/Retry.h"

namespace kes::driver {
namespace {

using sys::Descriptor;

[[noreturn]] void fail(const std::string& name, int error) {
  throw std::system_error(error, std::generic_category(), "cannot read trace text from " + name);
}

mode_t typeOf(int fd) {
  struct stat info {};
  return ::fstat(fd, &info) == 0 ? info.st_mode & S_IFMT : 0;
}

// A named pipe is opened for both, so that its end does not come with its first writer's.
Descriptor openSource(const std::string& name) {
  if (name == "-") return Descriptor(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  struct stat info {};
  const bool isPipe = ::stat(name.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
  return Descriptor(::open(name.c_str(), (isPipe ? O_RDWR : O_RDONLY) | O_CLOEXEC));
}

}  // namespace

TraceSource::TraceSource(const std::string& name, EventLoop& loop, Driver& driver)
    : name_(name), loop_(loop), driver_(driver), file_(openSource(name)) {
  if (!file_) fail(name, errno);
  const mode_t type = typeOf(file_.get());
  if (type == S_IFDIR) fail(name, EISDIR);
  if (type == S_IFREG) {
    readOnDemand();
  } else {
    readWhenReadable();
  }
}

void TraceSource::readOnDemand() {
  driver_.traceWanted = [this] {
    while (driver_.trace().size() < maxTraceText && read(driver_.trace().room())) {
    }
  };
}

void TraceSource::readWhenReadable() {
  try {
    loop_.watch(file_.get(), [this] {
      if (!read(TraceBuffer::usualCapacity)) loop_.forget(file_.get());
    });
  } catch (const std::system_error& error) {
    if (error.code().value() != EPERM) throw;
    readOnDemand();  // a device that is always ready, like /dev/null
  }
}

bool TraceSource::read(std::size_t limit) {
  std::array<char, 4096> chunk;
  const ssize_t got =
      sys::retry([&] { return ::read(file_.get(), chunk.data(), std::min(limit, chunk.size())); });
  if (got <= 0) return false;
  driver_.trace().append({chunk.data(), static_cast<std::size_t>(got)});
  return true;
}

}  // namespace kes::driver
