#include "kespal/EchoGuard.h"

#include <unistd.h>

#include <cerrno>

#include "error/Report.h"
#include "kespal/error/OsError.h"
#include "sys/Retry.h"

namespace kes::term {

EchoGuard::EchoGuard(int fd) : fd_(fd) {
  if (::tcgetattr(fd_, &before_) != 0) {
    if (errno != ENOTTY && errno != EINVAL) raiseAt(KES_HERE, OsError(errno));
    return;
  }
  termios hidden = before_;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
  check(KES_HERE, sys::retry([&] { return ::tcsetattr(fd_, TCSAFLUSH, &hidden); }));
  owner_ = ::getpid();
}

EchoGuard::~EchoGuard() {
  if (owner_ != ::getpid()) return;
  doReporting({"WARNING: the terminal does not show what is typed:\n"}, [this] {
    check(KES_HERE, sys::retry([this] { return ::tcsetattr(fd_, TCSANOW, &before_); }));
  });
}

}  // namespace kes::term
