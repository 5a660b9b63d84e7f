#include "kespal/EchoGuard.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <optional>

#include "kespal/Terminal.h"
#include "kespal/error/OsError.h"
#include "support/ForkedChild.h"
#include "support/Pty.h"
#include "support/Raised.h"

namespace kes::term {
namespace {

using test::inChild;
using test::Pty;
using test::raisedBy;

bool echoes(const Pty& pty) { return (pty.attributes().c_lflag & ECHO) != 0; }

TEST(EchoGuardTest, WhatIsTypedIsHiddenUntilTheEndOfTheScope) {
  const Pty pty;
  {
    const EchoGuard hidden(pty.terminal());
    EXPECT_FALSE(echoes(pty));
  }
  EXPECT_TRUE(echoes(pty));
}

TEST(EchoGuardTest, ATerminalThatShowedNothingBeforeShowsNothingAfter) {
  const Pty pty;
  const EchoGuard outer(pty.terminal());
  { const EchoGuard inner(pty.terminal()); }
  EXPECT_FALSE(echoes(pty));
}

TEST(EchoGuardTest, AllAttributesAreAsTheyWere) {
  const Pty pty;
  termios before = pty.attributes();
  before.c_lflag |= ECHONL;
  before.c_cc[VINTR] = 7;
  ASSERT_EQ(::tcsetattr(pty.terminal(), TCSANOW, &before), 0);
  {
    const EchoGuard hidden(pty.terminal());
    EXPECT_EQ(pty.attributes().c_lflag & (ECHO | ECHONL), 0U);
    EXPECT_EQ(pty.attributes().c_cc[VINTR], 7);
  }
  EXPECT_EQ(pty.attributes().c_lflag, before.c_lflag);
}

TEST(EchoGuardTest, StandardInputIsMeantWithoutADescriptor) {
  const auto child = inChild([] {
    const Pty pty;
    ::dup2(pty.terminal(), STDIN_FILENO);
    const EchoGuard hidden;
    return echoes(pty) ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(EchoGuardTest, WhereThereIsNoTerminalNothingIsDoneAndAClosedDescriptorIsAnError) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  for (const int fd : {null, ends[0]}) EXPECT_EQ(raisedBy([fd] { EchoGuard guard(fd); }).type, "");
  for (const int fd : {null, ends[0], ends[1]}) ::close(fd);
  const auto raised = raisedBy([null] { EchoGuard guard(null); });
  EXPECT_EQ(raised.type, "kes::OsError");
  EXPECT_EQ(raised.errnum, EBADF);
}

TEST(EchoGuardTest, AForkedChildDoesNotShowWhatItsParentHides) {
  const Pty pty;
  std::optional<EchoGuard> hidden;
  hidden.emplace(pty.terminal());
  EXPECT_EQ(inChild([&] { return hidden.reset(), 0; }).exitCode(), 0);
  EXPECT_FALSE(echoes(pty));
}

TEST(EchoGuardTest, ATerminalThatIsGoneAtTheEndIsReported) {
  const auto child = inChild([] {
    const Pty pty;
    const int copy = ::dup(pty.terminal());
    const EchoGuard hidden(copy);
    ::close(copy);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_THAT(child.err, testing::StartsWith("WARNING: the terminal does not show what is typed:\n"));
}

/// Both switches of colour after a program has asked, with these variables set.
std::string coloursWith(std::initializer_list<std::pair<const char*, const char*>> variables) {
  return inChild([&] {
           for (const char* name : {"KES_NO_COLOR", "KES_FORCE_COLOR", "NO_COLOR", "TERM"}) ::unsetenv(name);
           for (const auto& [name, value] : variables) ::setenv(name, value, 1);
           Terminal::setColorMode(true, true);
           Terminal::heedNoColor();
           std::string both = Terminal::m_stdout_color ? "out" : "";
           both += Terminal::m_stderr_color ? " err" : "";
           Terminal::setColorMode(false, false);
           std::cout << both;
           return 0;
         })
      .out;
}

TEST(NoColorTest, AUserWhoWantsNoColourGetsNone) {
  EXPECT_EQ(coloursWith({{"NO_COLOR", "1"}}), "");
  EXPECT_EQ(coloursWith({{"TERM", "dumb"}}), "");
}

TEST(NoColorTest, AnEmptyVariableAndAnotherTerminalLeaveColourAsItIs) {
  EXPECT_EQ(coloursWith({}), "out err");
  EXPECT_EQ(coloursWith({{"NO_COLOR", ""}, {"TERM", "xterm"}}), "out err");
}

TEST(NoColorTest, ColourThatIsForcedStays) {
  EXPECT_EQ(coloursWith({{"NO_COLOR", "1"}, {"TERM", "dumb"}, {"KES_FORCE_COLOR", ""}}), "out err");
}

TEST(NoColorTest, ColourThatIsOffIsNotTurnedOn) {
  const auto child = inChild([] {
    ::setenv("KES_FORCE_COLOR", "1", 1);
    Terminal::setColorMode(false, false);
    Terminal::heedNoColor();
    return Terminal::m_stdout_color || Terminal::m_stderr_color ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

}  // namespace
}  // namespace kes::term
