#pragma once

#include <termios.h>

#include <functional>
#include <string>

namespace kes::test {

/// A pseudo-terminal: the test sits at the keyboard and the screen, the code under test has the terminal.
class Pty {
 public:
  Pty();
  ~Pty();
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  int keyboard() const { return master_; }  ///< the test's end: writes are keys, reads are the screen
  int terminal() const { return slave_; }   ///< the end to give to the code under test

  void type(const std::string& keys) const;
  /// What is on the screen, as soon as it contains `text` or after a generous limit.
  std::string screen(const std::string& text);
  termios attributes() const;
  /// Waits until the attributes are as `wanted` says; false after a generous limit.
  bool becomes(const std::function<bool(const termios&)>& wanted) const;
  /// Hangs up: the terminal's reader sees its end.
  void closeKeyboard();
  void closeTerminal();

 private:
  int master_;
  int slave_;
  std::string screen_;
};

}  // namespace kes::test
