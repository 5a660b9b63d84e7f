#include "kesos/console.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <future>

#include "support/Calls.h"
#include "support/Pty.h"

// What the readers ask of this thread's terminal, and which of it is refused.
namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

thread_local std::vector<termios> settings;
thread_local timeval patience{};
thread_local std::size_t refusedSetting = 0;  // counts from 1
thread_local bool pollIsRefused = false, readIsRefused = false;

int refuse(int error) {
  errno = error;
  return -1;
}

const Instead<Call::tcsetattr> tcsetattrHere([](int fd, int when, const termios* attributes) {
  settings.push_back(*attributes);
  return settings.size() == refusedSetting ? refuse(EIO) : real<Call::tcsetattr>(fd, when, attributes);
});

const Instead<Call::select> selectHere([](int count, fd_set* in, fd_set* out, fd_set* error,
                                          timeval* timeout) {
  if (timeout != nullptr) patience = *timeout;
  return pollIsRefused ? refuse(EINTR) : real<Call::select>(count, in, out, error, timeout);
});

const Instead<Call::read> readHere([](int fd, void* data, std::size_t size) -> ssize_t {
  return readIsRefused ? refuse(EIO) : real<Call::read>(fd, data, size);
});

using kes::test::Pty;

bool isRaw(const termios& attributes) { return (attributes.c_lflag & ICANON) == 0; }

/// Standard input is a pseudo-terminal, unbuffered as in programs that use both readers.
class ConsoleTest : public testing::Test {
 protected:
  void SetUp() override {
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    putOnInput(pty_.terminal());
    before_ = pty_.attributes();
    settings.clear();
  }
  void TearDown() override {
    refusedSetting = 0;
    pollIsRefused = readIsRefused = false;
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
    settings.clear();
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

TEST_F(ConsoleTest, APollSwitchesToSingleKeysForAHundredMicrosecondsAndBack) {
  for (const char echo : {'\0', '\1', 'n'}) {
    settings.clear();
    EXPECT_EQ(KesOsGetChNoWait(echo), 0);
    ASSERT_EQ(settings.size(), 2U);
    const tcflag_t cleared = ICANON | (echo != 0 ? 0 : ECHO);
    EXPECT_EQ(settings[0].c_lflag, before_.c_lflag & ~cleared) << "and no other flag";
    EXPECT_EQ(settings[0].c_cc[VMIN], 1);
    EXPECT_EQ(settings[0].c_cc[VTIME], 0);
    EXPECT_EQ(settings[1].c_lflag, before_.c_lflag);
  }
  EXPECT_EQ(patience.tv_sec, 0);
  EXPECT_EQ(patience.tv_usec, 100);
}

TEST_F(ConsoleTest, ATerminalThatCannotBeSwitchedGivesMinusOneAndNoKeyIsTaken) {
  typeAhead("k");
  refusedSetting = 1;
  EXPECT_EQ(KesOsGetCh(0), -1);
  settings.clear();
  EXPECT_EQ(KesOsGetChNoWait(0), -1);
  refusedSetting = 0;
  EXPECT_EQ(KesOsGetChNoWait(0), 'k');
}

TEST_F(ConsoleTest, ATerminalThatCannotBeRestoredGivesMinusOneInPlaceOfTheKey) {
  typeAhead("ab");
  refusedSetting = 2;
  EXPECT_EQ(KesOsGetCh(0), -1);
  settings.clear();
  EXPECT_EQ(KesOsGetChNoWait(0), -1);
  refusedSetting = 0;
  EXPECT_EQ(KesOsGetChNoWait(0), 0) << "both keys were taken";
}

TEST_F(ConsoleTest, APollThatFailsGivesMinusOneAndTheTerminalIsRestored) {
  typeAhead("k");
  pollIsRefused = true;
  EXPECT_EQ(KesOsGetChNoWait(0), -1);
  expectRestored();
}

TEST_F(ConsoleTest, AnAnnouncedKeyThatCannotBeReadGivesOneAndTheTerminalIsRestored) {
  typeAhead("k");
  readIsRefused = true;
  EXPECT_EQ(KesOsGetChNoWait(0), 1);
  expectRestored();
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
