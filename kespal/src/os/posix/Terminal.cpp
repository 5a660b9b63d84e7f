#include "kespal/Terminal.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

#include "kespal/error/OsError.h"
#include "kespal/proc/Env.h"
#include "sys/NoCancel.h"

namespace kes::term {

constinit bool Terminal::m_stdout_color = false;
constinit bool Terminal::m_stderr_color = false;

namespace {

int descriptorOf(Terminal::Kind kind) noexcept {
  switch (kind) {
    case Terminal::Kind::Stdout:
      return STDOUT_FILENO;
    case Terminal::Kind::Stderr:
      return STDERR_FILENO;
    case Terminal::Kind::Stdin:
      return STDIN_FILENO;
  }
  return -1;
}

bool isSet(const char* variable) {
  std::string ignored;
  return proc::Env::get(variable, ignored);
}

/// Escape sequences, of a paint or a command. They take no memory: to write them never fails.
class Sequences {
 public:
  void add(std::string_view parameter) {
    append("\x1b[");
    append(parameter);
    append("m");
  }
  void addLayer(char place, int color, bool bright) {
    if (color == -1 && !bright) return;
    add(bright ? BRIGHT_CMD : NORMAL_INTENSITY_CMD);
    if (color == -1) return;
    char parameter[16] = {place};
    const char* const end = std::to_chars(parameter + 1, std::end(parameter), color).ptr;
    add({parameter, static_cast<std::size_t>(end - parameter)});
  }

  // Not as formatted text: a field width set on the stream is meant for what follows.
  void write(std::ostream& stream) const { stream.write(text_, end_ - text_); }

 private:
  void append(std::string_view part) { end_ = std::copy(part.begin(), part.end(), end_); }

  char text_[64];  // a paint has at most 40
  char* end_ = text_;
};

constexpr Paint normal(Color color) { return {.foreground = color}; }
constexpr Paint bright(Color color) { return {.foreground = color, .foregroundBright = true}; }

}  // namespace

// They live here because a program that never names them would not link a file of their own, and lose the
// resets at its end.
ColorGuard vc_guard(std::cout, normal(Color::Cyan));
ColorGuard wc_guard(std::cerr, normal(Color::Yellow));
ColorGuard ec_guard(std::cerr, bright(Color::Red));
ColorGuard gc_guard(std::cout, normal(Color::Green));

Terminal::Terminal(const Kind& kind) noexcept : fd_(descriptorOf(kind)) {}

Terminal::Size Terminal::size() const {
  winsize window{};
  if (::ioctl(fd_, TIOCGWINSZ, &window) != 0) raiseAt(KES_HERE, OsError(errno));
  return {window.ws_col, window.ws_row};
}

void Terminal::setEcho(bool on) {
  termios attributes{};
  if (::tcgetattr(fd_, &attributes) != 0) raiseAt(KES_HERE, OsError(errno));
  if (on) {
    attributes.c_lflag |= ECHO;
  } else {
    attributes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  }
  if (::tcsetattr(fd_, TCSAFLUSH, &attributes) != 0) raiseAt(KES_HERE, OsError(errno));
}

bool Terminal::isTerminal() const noexcept { return ::isatty(fd_) != 0; }

bool Terminal::isTerminal(const std::ostream& stream) noexcept {
  return (&stream == &std::cout && m_stdout_color) || (&stream == &std::cerr && m_stderr_color);
}

void Terminal::init() {
  setColorMode(false, false);
  if (isSet("KES_NO_COLOR")) return;
  const bool forced = isSet("KES_FORCE_COLOR");
  setColorMode(forced || Terminal(Kind::Stdout).isTerminal(), forced || Terminal(Kind::Stderr).isTerminal());
}

void Terminal::heedNoColor() {
  std::string noColor, kind;
  proc::Env::get("NO_COLOR", noColor);
  proc::Env::get("TERM", kind);
  if ((!noColor.empty() || kind == "dumb") && !isSet("KES_FORCE_COLOR")) setColorMode(false, false);
}

void Terminal::setColorMode(bool out, bool err) noexcept {
  m_stdout_color = out;
  m_stderr_color = err;
}

void Terminal::switchColor(std::ostream& stream, const Paint& paint) {
  if (!paint.force && !isTerminal(stream)) return;
  Sequences sequences;
  sequences.addLayer('4', paint.background, paint.backgroundBright);
  sequences.addLayer('3', paint.foreground, paint.foregroundBright);
  sequences.write(stream);
}

void Terminal::processCmd(std::ostream& stream, const Command& command) {
  if (!command.force && !isTerminal(stream)) return;
  Sequences sequences;
  if (command.flags & Command::Reset) sequences.add("0");
  if (command.flags & Command::Underline) sequences.add(command.on ? UNDERLINE_CMD : UNDERLINE_OFF_CMD);
  if (command.flags & Command::Blink) sequences.add(command.on ? BLINK_CMD : BLINK_OFF_CMD);
  sequences.write(stream);
}

std::ostream& operator<<(std::ostream& stream, const Paint& paint) {
  Terminal::switchColor(stream, paint);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const Command& command) {
  Terminal::processCmd(stream, command);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const Terminal::Size& size) {
  return stream << std::to_string(size.columns) + 'x' + std::to_string(size.rows);
}

ColorGuard::ColorGuard(std::ostream& stream, const Paint& paint) : paint_(paint), stream_(stream) {
  Terminal::switchColor(stream_, paint_);
}

ColorGuard::~ColorGuard() {
  const sys::NoCancel uninterrupted;
  Terminal::processCmd(stream_, {.flags = Command::Reset, .force = paint_.force});
  stream_.flush();
}

}  // namespace kes::term
