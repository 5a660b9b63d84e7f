#include "kesos/console.h"

#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "sys/Retry.h"

namespace {

/// The terminal on standard input with keys delivered one by one; as it was, when the object dies.
class KeyMode {
 public:
  explicit KeyMode(char echo) {
    if (::tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios keys = saved_;
    keys.c_lflag &= ~static_cast<tcflag_t>(echo != 0 ? ICANON : ICANON | ECHO);
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    active_ = set(keys);
  }
  ~KeyMode() { restore(); }
  KeyMode(const KeyMode&) = delete;
  KeyMode& operator=(const KeyMode&) = delete;

  bool active() const { return active_; }

  bool restore() {
    if (!active_) return true;
    active_ = false;
    return set(saved_);
  }

 private:
  static bool set(const termios& attributes) {
    return kes::sys::retry([&] { return ::tcsetattr(STDIN_FILENO, TCSANOW, &attributes); }) == 0;
  }

  termios saved_{};
  bool active_ = false;
};

int pollKey() {
  fd_set input;
  FD_ZERO(&input);
  FD_SET(STDIN_FILENO, &input);
  timeval patience{0, 100};
  const int ready = ::select(STDIN_FILENO + 1, &input, nullptr, nullptr, &patience);
  unsigned char key = 0;
  return ready > 0 && ::read(STDIN_FILENO, &key, 1) == 1 ? key : ready;
}

}  // namespace

int KesOsGetCh(char echo) {
  KeyMode mode(echo);
  if (!mode.active()) return -1;
  const int key = ::getchar();
  return mode.restore() ? key : -1;
}

int KesOsGetChNoWait(char echo) {
  KeyMode mode(echo);
  if (!mode.active()) return -1;
  const int result = pollKey();
  return mode.restore() ? result : -1;
}
