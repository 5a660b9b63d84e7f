#pragma once  // since 0.1

#include <sys/types.h>
#include <termios.h>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"

KES_EXPORT_BEGIN

namespace kes::term {

/// Hides what is typed at a terminal until the end of the scope, as for a password. What was typed before is
/// dropped; at the end the terminal is as it was, and what was typed by then stays for whoever reads next.
/// Where there is no terminal, as behind a pipe, there is nothing to hide, and nothing is done.
///
/// A process that a signal ends leaves the terminal hidden: hold SIGINT and the like back meanwhile, or have
/// them handled (signal::Handler). In a process of the background the system stops whoever makes one
/// (SIGTTOU). In a forked child that inherits one its end does nothing. One thread uses a terminal at a time.
class EchoGuard : NoCopy {
 public:
  /// Of the terminal at standard input, or behind another descriptor, which must stay open as long as the
  /// guard lives. OsError (EBADF, EIO).
  explicit EchoGuard(int fd = 0);
  /// A failure goes to standard error.
  ~EchoGuard();

 private:
  int fd_;
  pid_t owner_ = -1;  // none where there is nothing to do
  termios before_{};
};

}  // namespace kes::term

KES_EXPORT_END
