#include "kespal/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "kespal/error/OsError.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Pty.h"
#include "support/TempDir.h"

namespace kes::term {
namespace {

using test::ChildResult;
using test::inChild;
using test::Pty;

bool echoes(const Pty& pty) { return (pty.attributes().c_lflag & ECHO) != 0; }

/// Whether a line can be read from standard input, now or after so many milliseconds.
bool lineIsThere(int patience) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  return ::poll(&input, 1, patience) == 1;
}

std::string readLine() {
  char text[80];
  const ssize_t size = ::read(STDIN_FILENO, text, sizeof text);
  return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
}

/// What a forced paint or command writes.
template <typename Sequence>
std::string written(Sequence sequence) {
  sequence.force = true;
  std::ostringstream stream;
  stream << sequence;
  return stream.str();
}

/// Standard output and error of a child that runs `body` with colour set as given.
ChildResult withColor(bool out, bool err, const std::function<void()>& body) {
  return inChild([&] {
    Terminal::setColorMode(out, err);
    body();
    Terminal::setColorMode(false, false);
    return 0;
  });
}

/// The switches after init() in an environment, "out err" as digits, standard output a terminal or not.
std::string switchesAfterInit(std::initializer_list<const char*> variables, bool outIsTerminal = false) {
  return inChild([&] {
           const Pty pty;
           const int report = ::dup(STDOUT_FILENO);
           if (outIsTerminal) ::dup2(pty.terminal(), STDOUT_FILENO);
           ::unsetenv("KES_NO_COLOR");
           ::unsetenv("KES_FORCE_COLOR");
           for (const char* variable : variables) ::setenv(variable, "", 1);
           Terminal::m_stdout_color = Terminal::m_stderr_color = true;
           Terminal::init();
           const std::string both =
               std::to_string(Terminal::m_stdout_color) + std::to_string(Terminal::m_stderr_color);
           Terminal::setColorMode(false, false);
           return ::write(report, both.data(), both.size()) == 2 ? 0 : 1;
         })
      .out;
}

TEST(TerminalTest, AKindBindsItsDescriptor) {
  const auto which = [](int fd) {
    return inChild([fd] {
      const Pty pty;
      const int quiet = ::open("/dev/null", O_RDWR);
      for (int each = 0; each < 3; ++each) ::dup2(each == fd ? pty.terminal() : quiet, each);
      return (Terminal(Terminal::Kind::Stdout).isTerminal() ? 1 : 0) +
             (Terminal(Terminal::Kind::Stderr).isTerminal() ? 2 : 0) +
             (Terminal(Terminal::Kind::Stdin).isTerminal() ? 4 : 0);
    });
  };
  EXPECT_EQ(which(1).exitCode(), 1);
  EXPECT_EQ(which(2).exitCode(), 2);
  EXPECT_EQ(which(0).exitCode(), 4);
  EXPECT_EQ(static_cast<int>(Terminal::Kind::Stdout), 0);
  EXPECT_EQ(static_cast<int>(Terminal::Kind::Stderr), 1);
  EXPECT_EQ(static_cast<int>(Terminal::Kind::Stdin), 2);
}

TEST(TerminalTest, AnyOtherKindHasNoDescriptor) {
  const Terminal none(static_cast<Terminal::Kind>(7));
  EXPECT_FALSE(none.isTerminal());
  try {
    (void)none.size();
    FAIL();
  } catch (const OsError& error) {
    EXPECT_EQ(error.errnum(), EBADF);
  }
}

TEST(TerminalTest, SizeGivesColumnsAndRows) {
  const auto child = inChild([] {
    const Pty pty;
    winsize window{};
    window.ws_col = 91;
    window.ws_row = 33;
    ::ioctl(pty.terminal(), TIOCSWINSZ, &window);
    ::dup2(pty.terminal(), STDIN_FILENO);
    std::cout << Terminal(Terminal::Kind::Stdin).size();
    return 0;
  });
  EXPECT_EQ(child.out, "91x33");
}

TEST(TerminalTest, ASizeIsWrittenAsOneField) {
  std::ostringstream stream;
  stream << std::setw(7) << Terminal::Size{80, 24};
  EXPECT_EQ(stream.str(), "  80x24");
}

TEST(TerminalTest, SizeOfWhatIsNoTerminalRaisesOsError) {
  const auto child = inChild([] {
    const int quiet = ::open("/dev/null", O_RDWR);
    ::dup2(quiet, STDIN_FILENO);
    try {
      (void)Terminal(Terminal::Kind::Stdin).size();
    } catch (const OsError& error) {
      std::cout << error.errnum() << ' ' << error.file() << ' ' << error.function();
    }
    return 0;
  });
  EXPECT_EQ(child.out, std::to_string(ENOTTY) + " src/os/posix/Terminal size");
}

TEST(TerminalTest, SetEchoHidesAndShowsWhatIsTyped) {
  const auto child = inChild([] {
    const Pty pty;
    ::dup2(pty.terminal(), STDIN_FILENO);
    Terminal terminal(Terminal::Kind::Stdin);
    std::cout << echoes(pty);
    terminal.setEcho(false);
    std::cout << echoes(pty);
    terminal.setEcho(false);
    std::cout << echoes(pty);
    terminal.setEcho(true);
    std::cout << echoes(pty);
    return 0;
  });
  EXPECT_EQ(child.out, "1001");
}

TEST(TerminalTest, WithoutEchoTypedCharactersAreReadButNotShown) {
  const auto child = inChild([] {
    Pty pty;
    ::dup2(pty.terminal(), STDIN_FILENO);
    Terminal terminal(Terminal::Stdin);
    terminal.setEcho(false);
    pty.type("secret\n");
    std::cout << readLine();
    terminal.setEcho(true);
    pty.type("shown\n");
    std::cout << readLine() << pty.screen("shown\r\n");
    return 0;
  });
  EXPECT_EQ(child.out, "secret\nshown\nshown\r\n");
}

TEST(TerminalTest, SetEchoDropsWhatWasTypedAhead) {
  const auto child = inChild([] {
    const Pty pty;
    ::dup2(pty.terminal(), STDIN_FILENO);
    pty.type("typed ahead\n");
    if (!lineIsThere(60'000)) return 1;
    Terminal(Terminal::Stdin).setEcho(false);
    return lineIsThere(0) ? 2 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(TerminalTest, AttributesThatCannotBeSetRaiseOsError) {
  const auto child = inChild([] {
    const Pty pty;
    ::dup2(pty.terminal(), STDIN_FILENO);
    try {
      const test::Refuse refused(test::Call::tcsetattr, EIO);
      Terminal(Terminal::Stdin).setEcho(false);
    } catch (const OsError& error) {
      std::cout << error.errnum() << ' ' << error.file() << ' ' << error.function() << ' ' << echoes(pty);
    }
    return 0;
  });
  EXPECT_EQ(child.out, std::to_string(EIO) + " src/os/posix/Terminal setEcho 1");
}

TEST(TerminalTest, SetEchoOfWhatIsNoTerminalRaisesOsError) {
  const auto child = inChild([] {
    ::close(STDIN_FILENO);
    try {
      Terminal(Terminal::Kind::Stdin).setEcho(false);
    } catch (const OsError& error) {
      std::cout << error.errnum() << ' ' << error.file() << ' ' << error.function();
    }
    return 0;
  });
  EXPECT_EQ(child.out, std::to_string(EBADF) + " src/os/posix/Terminal setEcho");
}

TEST(TerminalTest, InitTurnsColourOffWhenNoColorIsSetWhateverElseIs) {
  EXPECT_EQ(switchesAfterInit({"KES_NO_COLOR", "KES_FORCE_COLOR"}), "00");
  EXPECT_EQ(switchesAfterInit({"KES_NO_COLOR"}, /*outIsTerminal=*/true), "00");
}

TEST(TerminalTest, InitTurnsColourOnWhenItIsForced) {
  EXPECT_EQ(switchesAfterInit({"KES_FORCE_COLOR"}), "11");
}

TEST(TerminalTest, InitTurnsColourOnWhereTheDescriptorIsATerminal) {
  EXPECT_EQ(switchesAfterInit({}), "00");
  EXPECT_EQ(switchesAfterInit({}, /*outIsTerminal=*/true), "10");
}

TEST(TerminalTest, OnlyCoutAndCerrCanHaveColour) {
  const auto child = withColor(true, true, [] {
    std::ostringstream other;
    std::cout << Terminal::isTerminal(std::cout) << Terminal::isTerminal(std::cerr)
              << Terminal::isTerminal(std::clog) << Terminal::isTerminal(other);
  });
  EXPECT_EQ(child.out, "1100");
}

TEST(TerminalTest, ASwitchConcernsItsOwnStreamOnly) {
  const auto child = withColor(true, false, [] {
    std::cout << Paint{.foreground = Color::Red};
    std::cerr << Paint{.foreground = Color::Red};
  });
  EXPECT_EQ(child.out, "\x1b[22m\x1b[31m");
  EXPECT_EQ(child.err, "");
}

TEST(TerminalTest, APaintWritesIntensityThenColour) {
  EXPECT_EQ(written(Paint{.foreground = 1, .foregroundBright = true}), "\x1b[1m\x1b[31m");
  EXPECT_EQ(written(Paint{.foreground = 6}), "\x1b[22m\x1b[36m");
}

TEST(TerminalTest, APaintWritesItsBackgroundFirst) {
  EXPECT_EQ(written(Paint{.foreground = 2, .foregroundBright = true, .background = 4}),
            "\x1b[22m\x1b[44m\x1b[1m\x1b[32m");
}

TEST(TerminalTest, ABrightPaintWithoutColourWritesTheIntensityAlone) {
  EXPECT_EQ(written(Paint{.foregroundBright = true}), "\x1b[1m");
  EXPECT_EQ(written(Paint{.backgroundBright = true}), "\x1b[1m");
}

TEST(TerminalTest, SequencesAreWrittenAlsoWithoutMemory) {
  std::ostringstream stream(std::string(80, '.'));
  bool refused = true;
  {
    const test::NoMemory none;
    stream << Paint{.foreground = -10, .background = Blue, .backgroundBright = true, .force = true}
           << Command{.flags = Command::Reset | Command::Underline | Command::Blink, .force = true};
    refused = test::NoMemory::refused();
  }
  EXPECT_FALSE(refused);
  EXPECT_EQ(stream.str().substr(0, stream.str().find('.')),
            "\x1b[1m\x1b[44m\x1b[22m\x1b[3-10m\x1b[0m\x1b[24m\x1b[25m");
}

TEST(TerminalTest, APaintWithoutColoursAndBrightnessWritesNothing) { EXPECT_EQ(written(Paint{}), ""); }

TEST(TerminalTest, APaintToAFileWritesNothingUnlessForced) {
  const test::TempDir dir;
  const auto child = withColor(true, true, [&dir] {
    std::ofstream file(dir / "painted");
    file << Paint{.foreground = 1} << Command{.flags = Command::Reset} << '|'
         << Paint{.foreground = 1, .force = true};
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(test::readFile(dir / "painted"), "|\x1b[22m\x1b[31m");
}

TEST(TerminalTest, CommandsAreWrittenInTheOrderOfTheirBits) {
  EXPECT_EQ(written(Command{.flags = 7, .on = true}), "\x1b[0m\x1b[4m\x1b[5m");
  EXPECT_EQ(written(Command{.flags = 7, .on = false}), "\x1b[0m\x1b[24m\x1b[25m");
  EXPECT_EQ(written(Command{.flags = 2, .on = true}), "\x1b[4m");
  EXPECT_EQ(written(Command{.flags = 4, .on = true}), "\x1b[5m");
  EXPECT_EQ(written(Command{.flags = 0, .on = true}), "");
}

TEST(TerminalTest, SequencesLeaveAFieldWidthToTheTextThatFollows) {
  std::ostringstream stream;
  stream << std::setw(4) << Paint{.foreground = 1, .force = true} << "x";
  EXPECT_EQ(stream.str(), "\x1b[22m\x1b[31m   x");
}

TEST(TerminalTest, AColorGuardPaintsNowAndResetsAtTheEndOfTheScope) {
  const auto child = withColor(true, false, [] {
    const ColorGuard red(std::cout, Paint{.foreground = Color::Red});
    std::cout << "text";
  });
  EXPECT_EQ(child.out, "\x1b[22m\x1b[31mtext\x1b[0m");
}

TEST(TerminalTest, AForcedColorGuardResetsAnyStream) {
  std::ostringstream stream;
  { const ColorGuard forced(stream, Paint{.foreground = 3, .force = true}); }
  EXPECT_EQ(stream.str(), "\x1b[22m\x1b[33m\x1b[0m");
}

TEST(TerminalTest, AColorGuardFlushesItsStream) {
  struct Counter : std::stringbuf {
    int sync() override { return ++flushed, 0; }
    int flushed = 0;
  } buffer;
  std::ostream stream(&buffer);
  {
    const ColorGuard guard(stream, Paint{.foreground = 3});
    EXPECT_EQ(buffer.flushed, 0);
  }
  EXPECT_EQ(buffer.flushed, 1);
  EXPECT_EQ(buffer.str(), "");
}

TEST(TerminalTest, AnExceptionWhileAColorGuardResetsEndsTheProcess) {
  const auto child = inChild([] {
    std::ostringstream stream;
    auto guard = std::make_unique<ColorGuard>(stream, Paint{.foreground = 3, .force = true});
    stream.exceptions(std::ios::badbit | std::ios::failbit);
    stream.clear();
    try {
      stream.setstate(std::ios::badbit);
    } catch (const std::ios_base::failure&) {
    }
    guard.reset();
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGABRT);
}

TEST(TerminalTest, TheFourGuardsResetTheirStreamsAtExitWhereColourIsOn) {
  const auto ended = [](bool out, bool err) {
    return inChild([=]() -> int {
      Terminal::setColorMode(out, err);
      std::exit(0);
    });
  };
  EXPECT_EQ(ended(true, false).out, "\x1b[0m\x1b[0m");
  EXPECT_EQ(ended(true, false).err, "");
  EXPECT_EQ(ended(false, true).out, "");
  EXPECT_EQ(ended(false, true).err, "\x1b[0m\x1b[0m");
}

}  // namespace
}  // namespace kes::term
