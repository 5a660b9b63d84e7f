#pragma once  // since 0.1

#include <iosfwd>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"

KES_EXPORT_BEGIN

namespace kes::term {

/// The colours of ANSI terminals, by their numbers; `Paint{.foreground = Color::Red}`.
enum Color : int { Black, Red, Green, Yellow, Blue, Magenta, Cyan, White };

/// Colours and intensity for a stream: `std::cout << Paint{...}`. Written only where colour is enabled, or
/// with `force`.
struct Paint {
  int foreground = -1;            ///< a Color, or -1: leave unchanged
  bool foregroundBright = false;  ///< the brighter shade
  int background = -1;            ///< a Color, or -1: leave unchanged
  bool backgroundBright = false;  ///< the brighter shade
  bool force = false;             ///< also where colour is off
};

/// Reset, underline and blink for a stream; several flags are written in this order.
struct Command {
  static constexpr unsigned Reset = 1;      ///< all as it was
  static constexpr unsigned Underline = 2;  ///< a flag
  static constexpr unsigned Blink = 4;      ///< a flag

  unsigned flags = 0;  ///< any of these
  bool on = false;     ///< underline and blink: on or off
  bool force = false;  ///< also where colour is off
};

/// Parameters of the escape sequences for brighter, underlined and blinking text, and those that end each.
inline constexpr const char* BRIGHT_CMD = "1";
inline constexpr const char* NORMAL_INTENSITY_CMD = "22";  ///< ends BRIGHT_CMD
inline constexpr const char* UNDERLINE_CMD = "4";          ///< see BRIGHT_CMD
inline constexpr const char* UNDERLINE_OFF_CMD = "24";     ///< ends UNDERLINE_CMD
inline constexpr const char* BLINK_CMD = "5";              ///< see BRIGHT_CMD
inline constexpr const char* BLINK_OFF_CMD = "25";         ///< ends BLINK_CMD

/// The terminal behind one of the three standard descriptors, which it does not own, and the process-wide
/// colour switches. The switches are plain values, set at start-up; several threads that write to one stream
/// may interleave their sequences.
class Terminal {
 public:
  /// One of the standard descriptors.
  enum Kind : int { Stdout, Stderr, Stdin };

  /// A window's size in characters; a terminal that does not know reports zeros.
  struct Size {
    unsigned columns;  ///< characters of a line
    unsigned rows;     ///< lines
  };

  /// Any other kind binds no descriptor: every operation then fails as on a closed one.
  Terminal(const Kind& kind) noexcept;  // NOLINT(google-explicit-constructor)

  /// OsError (ENOTTY when it is no terminal, EBADF).
  Size size() const;
  /// Shows or hides what is typed; pending input is dropped. OsError (ENOTTY, EBADF).
  void setEcho(bool on);
  bool isTerminal() const noexcept;  ///< whether there is a terminal behind it

  /// Whether colour is enabled for the stream: only std::cout and std::cerr can have it.
  static bool isTerminal(const std::ostream& stream) noexcept;
  /// Sets the switches from the environment: KES_NO_COLOR turns both off, else KES_FORCE_COLOR both on,
  /// whatever their values; else each is on where its descriptor is a terminal. Raises nothing but
  /// std::bad_alloc; neither does heedNoColor().
  static void init();
  static void setColorMode(bool out, bool err) noexcept;  ///< sets the two switches
  /// Turns colour off again where the user wants none in any program: where NO_COLOR is set and not empty, or
  /// TERM is "dumb". KES_FORCE_COLOR outweighs both. A program calls it behind init(), or behind the making
  /// of its KesPal, which calls that; init() alone hears the two variables above. Errors as init().
  static void heedNoColor();

  /// What writing a Paint, or a Command, to a stream does. The errors are those of the stream.
  static void switchColor(std::ostream& stream, const Paint& paint);
  static void processCmd(std::ostream& stream, const Command& command);  ///< see switchColor()

  static bool m_stdout_color;  ///< the switch of std::cout
  static bool m_stderr_color;  ///< the switch of std::cerr

 private:
  int fd_;
};

/// Writes the sequences; nothing where colour is off.
std::ostream& operator<<(std::ostream& stream, const Paint& paint);
std::ostream& operator<<(std::ostream& stream, const Command& command);
/// Writes columns, "x" and rows.
std::ostream& operator<<(std::ostream& stream, const Terminal::Size& size);

/// Paints a stream now, and resets and flushes it at the end of the scope; should that fail by an exception,
/// the program ends. The stream must outlive the guard. For one thread at a time.
class ColorGuard : NoCopy {
 public:
  /// Errors are those of the stream.
  ColorGuard(std::ostream& stream, const Paint& paint);
  ~ColorGuard();

 private:
  Paint paint_;
  std::ostream& stream_;
};

/// Alive for the whole program. They paint nothing, being made while colour is still off; their end resets
/// the streams where colour is on by then.
extern ColorGuard vc_guard;  ///< standard output, cyan
extern ColorGuard wc_guard;  ///< standard error, yellow
extern ColorGuard ec_guard;  ///< standard error, bright red
extern ColorGuard gc_guard;  ///< standard output, green

}  // namespace kes::term

KES_EXPORT_END
