#include "Console.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "State.h"

namespace {

/// What select() says of standard input right now. A signal may interrupt even a poll: taken for a key, it
/// would block the tool in a read.
int pollKeyboard() {
  int ready;
  do {
    fd_set input;
    FD_ZERO(&input);
    FD_SET(STDIN_FILENO, &input);
    timeval none{};
    ready = ::select(STDIN_FILENO + 1, &input, nullptr, nullptr, &none);
  } while (ready < 0 && errno == EINTR);
  return ready;
}

}  // namespace

void Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}

bool keyb_proc() { return pollKeyboard() != 0 && std::getc(stdin) == 'Q'; }

void signalHandler(int) { _exitflg = 1; }

void reset_terminal_mode() { ::tcsetattr(STDIN_FILENO, TCSANOW, &orig_termios); }

TerminalMode::TerminalMode() {
  ::tcgetattr(STDIN_FILENO, &orig_termios);
  termios keyByKey = orig_termios;
  std::atexit(reset_terminal_mode);
  keyByKey.c_lflag &= ~static_cast<tcflag_t>(ICANON);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &keyByKey);
}

TerminalMode::~TerminalMode() { reset_terminal_mode(); }
