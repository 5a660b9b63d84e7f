#pragma once

#include "kespal/NoCopy.h"

/// Prints to standard output at once: who reads it through a pipe shall not wait for a full buffer.
[[gnu::format(printf, 1, 2)]] void Print(const char* format, ...);

/// Polls the keyboard; true only for an upper-case 'Q'. Standard input must be unbuffered: a key that stdio
/// has read ahead is invisible to the poll. At its end, or with no standard input at all, there is no key.
bool keyb_proc();

/// Sets _exitflg; for SIGTERM and SIGINT.
void signalHandler(int);

/// Gives standard input the attributes it had at the start. Nothing happens when it is no terminal, nor in
/// the background, unless this program has switched the terminal and was not stopped since. Never stops.
void reset_terminal_mode();

/// While it lives, a key is seen without Return; echo and signal keys stay as they were. The terminal is put
/// back when it dies, and at process exit.
class TerminalMode : public kes::NoCopy {
 public:
  TerminalMode();
  ~TerminalMode();

  /// Switches the terminal again after the program was stopped and continued, since a shell takes the
  /// terminal back meanwhile. In the background that has to wait. Nothing happens when nothing was switched.
  static void resume();

  /// Whether standard input is a terminal that is somebody else's at the moment. What is typed there is meant
  /// for that one, and who reads it from the background is stopped for it.
  static bool isInBackground();
};
