#include "kespal/error/OsError.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "support/Calls.h"
#include "support/ForkedChild.h"

// The linker sends the library's calls of strerror_r here. Refusing is switched on by a test.
namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

bool refuse = false;
int askedFor = 0;
std::size_t room = 0;

const Instead<Call::__xpg_strerror_r> strerrorHere([](int errnum, char* buffer, std::size_t size) {
  askedFor = errnum;
  room = size;
  if (!refuse) return real<Call::__xpg_strerror_r>(errnum, buffer, size);
  std::strcpy(buffer, "not to be shown");
  return EINVAL;
});

}  // namespace

namespace kes {
namespace {

TEST(OsErrorTest, TheTextIsTheSystemsFollowedByTheNumberInParentheses) {
  for (int errnum : {EPERM, ENOENT, EACCES, EEXIST, EINVAL, EAGAIN, ETIMEDOUT}) {
    EXPECT_EQ(OsError(errnum).text(),
              std::strerror(errnum) + std::string(" (") + std::to_string(errnum) + ")");
  }
}

TEST(OsErrorTest, TheSystemIsAskedWithABufferOf128Bytes) {
  EXPECT_EQ(OsError(ENOENT).text(), "No such file or directory (2)");
  EXPECT_EQ(askedFor, ENOENT);
  EXPECT_EQ(room, 128U);
}

TEST(OsErrorTest, ItExplainsItselfAsASystemOrLibraryCall) {
  EXPECT_STREQ(OsError(ENOENT).what(), "System/Library call error: No such file or directory (2)");
}

TEST(OsErrorTest, TheLabelIsTheNumberInDecimal) {
  EXPECT_EQ(OsError(0).errnumLabel(), "0");
  EXPECT_EQ(OsError(-1).errnumLabel(), "-1");
  EXPECT_EQ(OsError(2147483647).errnumLabel(), "2147483647");
}

TEST(OsErrorTest, ItKeepsItsNumber) {
  EXPECT_EQ(OsError(EAGAIN).errnum(), EAGAIN);
  EXPECT_EQ(NoSuchProcessError(ESRCH).errnum(), ESRCH);
  EXPECT_EQ(NoSuchProcessError(ESRCH).text(), OsError(ESRCH).text());
}

TEST(OsErrorTest, ACallThatFailedIsRaisedWithItsErrorNumberFromItsSite) {
  errno = EACCES;
  try {
    check({"src/some/File", 42, "function"}, -1L);
    FAIL() << "nothing was raised";
  } catch (const OsError& error) {
    EXPECT_EQ(error.errnum(), EACCES);
    EXPECT_STREQ(error.file(), "src/some/File");
    EXPECT_EQ(error.line(), 42);
  }
  EXPECT_EQ(check(KES_HERE, 7), 7);
  EXPECT_EQ(check(KES_HERE, 0L), 0L);
}

TEST(OsErrorTest, ACallThatReturnsAnErrorNumberIsRaisedWithThatOne) {
  errno = EACCES;
  try {
    checkCode({"src/some/File", 42, "function"}, EBUSY);
    FAIL() << "nothing was raised";
  } catch (const OsError& error) {
    EXPECT_EQ(error.errnum(), EBUSY);
    EXPECT_STREQ(error.function(), "function");
  }
  EXPECT_NO_THROW(checkCode(KES_HERE, 0));
}

TEST(OsErrorTest, WhenTheSystemRefusesALineGoesToStandardErrorAndTheTextIsUnknown) {
  const test::ChildResult result = test::inChild([] {
    refuse = true;
    const OsError error(ENOENT);
    if (error.text() != "<unknown-error> (2)") return 1;
    if (std::string(error.what()) != "System/Library call error: <unknown-error> (2)") return 2;
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
  const std::string line = "text: error getting error text from strerror_r!\n";
  EXPECT_EQ(result.err, line + line);
  EXPECT_EQ(result.out, "");
}

TEST(OsErrorTest, ANumberThatTheSystemDoesNotKnowIsOneThatItRefuses) {
  char buffer[128];
  if (real<Call::__xpg_strerror_r>(99999, buffer, sizeof buffer) == 0)
    GTEST_SKIP() << "it knows every number here";
  const test::ChildResult result =
      test::inChild([] { return OsError(99999).text() == "<unknown-error> (99999)" ? 0 : 1; });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "text: error getting error text from strerror_r!\n");
}

}  // namespace
}  // namespace kes
