#include "Console.h"

#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "State.h"
#include "sys/Retry.h"

namespace {

/// What select() says of standard input right now. A signal may interrupt even a poll: taken for a key, it
/// would block the tool in a read.
int pollKeyboard() {
  return kes::sys::retry([] {
    fd_set input;
    FD_ZERO(&input);
    FD_SET(STDIN_FILENO, &input);
    timeval none{};
    return ::select(STDIN_FILENO + 1, &input, nullptr, nullptr, &none);
  });
}

/// orig_termios holds what was there.
bool hasOriginal = false;

/// This program has switched the terminal and not put it back.
bool hasSwitched = false;

/// Since then it was stopped and runs again.
volatile std::sig_atomic_t hasContinued = 0;

void noteContinuation(int) { hasContinued = 1; }

bool setAttributes(const termios& attributes) {
  return kes::sys::retry([&] { return ::tcsetattr(STDIN_FILENO, TCSANOW, &attributes); }) == 0;
}

bool switchToSingleKeys(termios attributes) {
  attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON);
  return setAttributes(attributes);
}

/// In the background the terminal is somebody else's, unless this program has left it switched: a shell takes
/// it back from a program that was stopped.
bool mayReset() { return !TerminalMode::isInBackground() || (hasSwitched && hasContinued == 0); }

/// Who changes the terminal from the background is stopped for it. While this lives, it changes.
class UnstoppedOutput : public kes::NoCopy {
 public:
  UnstoppedOutput() {
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGTTOU);
    ::pthread_sigmask(SIG_BLOCK, &stopping, &before_);
  }
  ~UnstoppedOutput() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

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

void reset_terminal_mode() {
  const UnstoppedOutput untilReset;
  if (!mayReset()) return;
  if (setAttributes(orig_termios)) hasSwitched = false;
}

TerminalMode::TerminalMode() {
  hasOriginal = ::tcgetattr(STDIN_FILENO, &orig_termios) == 0;
  if (!hasOriginal) return;
  std::atexit(reset_terminal_mode);
  hasSwitched = switchToSingleKeys(orig_termios);
  if (hasSwitched) std::signal(SIGCONT, noteContinuation);
}

TerminalMode::~TerminalMode() {
  if (hasOriginal) reset_terminal_mode();
}

void TerminalMode::resume() {
  if (hasContinued == 0 || isInBackground()) return;
  hasContinued = 0;
  termios now{};
  if (::tcgetattr(STDIN_FILENO, &now) == 0) switchToSingleKeys(now);
}

bool TerminalMode::isInBackground() {
  const pid_t foreground = ::tcgetpgrp(STDIN_FILENO);
  return foreground != -1 && foreground != ::getpgrp();
}
