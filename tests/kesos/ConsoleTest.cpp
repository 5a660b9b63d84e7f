#include "kesos/console.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <future>

#include "support/Pty.h"

namespace {

using kes::test::Pty;

bool isRaw(const termios& attributes) { return (attributes.c_lflag & ICANON) == 0; }

/// Standard input is a pseudo-terminal, unbuffered as in programs that use both readers.
class ConsoleTest : public testing::Test {
 protected:
  void SetUp() override {
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    putOnInput(pty_.terminal());
    before_ = pty_.attributes();
  }
  void TearDown() override {
    std::clearerr(stdin);
    ::dup2(saved_, STDIN_FILENO);
    ::close(saved_);
  }
  static void putOnInput(int fd) { ASSERT_EQ(::dup2(fd, STDIN_FILENO), STDIN_FILENO); }

  void expectRestored() const {
    const termios now = pty_.attributes();
    EXPECT_EQ(now.c_lflag, before_.c_lflag);
    EXPECT_EQ(now.c_cc[VMIN], before_.c_cc[VMIN]);
    EXPECT_EQ(now.c_cc[VTIME], before_.c_cc[VTIME]);
  }
  /// A byte typed ahead, seen by the terminal's line discipline.
  void typeAhead(const std::string& keys) {
    pty_.type(keys);
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON);
    ::tcsetattr(pty_.terminal(), TCSANOW, &raw);
    fd_set input;
    FD_ZERO(&input);
    FD_SET(pty_.terminal(), &input);
    EXPECT_EQ(::select(pty_.terminal() + 1, &input, nullptr, nullptr, nullptr), 1);
    ::tcsetattr(pty_.terminal(), TCSANOW, &before_);
  }

  Pty pty_;
  termios before_{};
  int saved_ = ::dup(STDIN_FILENO);
};

TEST_F(ConsoleTest, AKeyIsReadWithoutReturnAndTheTerminalRestored) {
  auto key = std::async(std::launch::async, [] { return KesOsGetCh(0); });
  ASSERT_TRUE(pty_.becomes(isRaw));
  EXPECT_EQ(pty_.attributes().c_lflag & ECHO, 0U);
  EXPECT_EQ(pty_.attributes().c_cc[VMIN], 1);
  pty_.type("k");
  EXPECT_EQ(key.get(), 'k');
  expectRestored();
}

TEST_F(ConsoleTest, EchoShowsTheKey) {
  auto key = std::async(std::launch::async, [] { return KesOsGetCh(1); });
  ASSERT_TRUE(pty_.becomes(isRaw));
  EXPECT_NE(pty_.attributes().c_lflag & ECHO, 0U);
  pty_.type("e");
  EXPECT_EQ(key.get(), 'e');
  EXPECT_EQ(pty_.screen("e"), "e");
}

TEST_F(ConsoleTest, AKeyTypedAheadIsTakenWithoutWaiting) {
  typeAhead("Q");
  EXPECT_EQ(KesOsGetChNoWait(0), 'Q');
  expectRestored();
}

TEST_F(ConsoleTest, WithoutAKeyTheResultIsZero) {
  EXPECT_EQ(KesOsGetChNoWait(0), 0);
  EXPECT_EQ(KesOsGetChNoWait(1), 0);
  expectRestored();
}

TEST_F(ConsoleTest, ANulKeyLooksLikeNone) {
  typeAhead(std::string(1, '\0'));
  EXPECT_EQ(KesOsGetChNoWait(0), 0);
}

TEST_F(ConsoleTest, AByteAbove127IsReportedAsItsCode) {
  typeAhead("\xe9");
  EXPECT_EQ(KesOsGetChNoWait(0), 0xe9);
  pty_.type("\xff");
  EXPECT_EQ(KesOsGetCh(0), 0xff);
}

TEST_F(ConsoleTest, KeysAreTakenOneByOneByBothReaders) {
  typeAhead("abc");
  EXPECT_EQ(KesOsGetChNoWait(0), 'a');
  EXPECT_EQ(KesOsGetCh(0), 'b');
  EXPECT_EQ(KesOsGetChNoWait(0), 'c');
}

TEST_F(ConsoleTest, InputThatIsNoTerminalGivesMinusOne) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  ASSERT_EQ(::write(ends[1], "xy", 2), 2);
  putOnInput(ends[0]);
  EXPECT_EQ(KesOsGetCh(0), -1);
  EXPECT_EQ(KesOsGetChNoWait(0), -1);
  char kept = 0;
  EXPECT_EQ(::read(ends[0], &kept, 1), 1);
  EXPECT_EQ(kept, 'x');
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(ConsoleTest, ClosedInputGivesMinusOne) {
  ::close(STDIN_FILENO);
  EXPECT_EQ(KesOsGetCh(0), -1);
  EXPECT_EQ(KesOsGetChNoWait(0), -1);
}

TEST_F(ConsoleTest, ATerminalThatHungUpGivesMinusOne) {
  pty_.closeKeyboard();
  EXPECT_EQ(KesOsGetCh(0), -1);
  EXPECT_EQ(KesOsGetChNoWait(0), -1);
}

}  // namespace
