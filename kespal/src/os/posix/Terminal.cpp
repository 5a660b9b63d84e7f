#include "kespal/Terminal.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <string>

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

std::string sequence(const std::string& parameter) { return "\x1b[" + parameter + 'm'; }

std::string layer(const char* place, int color, bool bright) {
  if (color == -1 && !bright) return "";
  std::string text = sequence(bright ? BRIGHT_CMD : NORMAL_INTENSITY_CMD);
  if (color != -1) text += sequence(place + std::to_string(color));
  return text;
}

// Not as formatted text: a field width set on the stream is meant for what follows.
void writeRaw(std::ostream& stream, const std::string& text) {
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

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
  writeRaw(stream, layer("4", paint.background, paint.backgroundBright) +
                       layer("3", paint.foreground, paint.foregroundBright));
}

void Terminal::processCmd(std::ostream& stream, const Command& command) {
  if (!command.force && !isTerminal(stream)) return;
  std::string text;
  if (command.flags & Command::Reset) text += sequence("0");
  if (command.flags & Command::Underline) text += sequence(command.on ? UNDERLINE_CMD : UNDERLINE_OFF_CMD);
  if (command.flags & Command::Blink) text += sequence(command.on ? BLINK_CMD : BLINK_OFF_CMD);
  writeRaw(stream, text);
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
