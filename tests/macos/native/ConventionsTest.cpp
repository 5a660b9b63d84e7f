// How functions of this platform are called: what of it the compiler decides shows on a Mac; under the loader
// of the tests also, whether the loader's answers are called in that way. On arm64 most of it is special.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <thread>
#include <type_traits>

#include "KeptInRegisters.h"
#include "support/TempDir.h"

namespace kes {
namespace {

static_assert(std::is_signed_v<char>);

std::string printed(const char* format, ...) {
  char buffer[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

TEST(NativeConventionsTest, MoreVariableArgumentsThanRegistersAllArrive) {
  char buffer[256];
  std::snprintf(buffer, sizeof buffer, "%d %c %s %hhd %g %ld %g %x %g %d %g %g %g %g %g %g %lld", -1, 'c',
                "text", static_cast<signed char>(-2), 0.5, -3L, 1.5, 0xFFU, 2.5, 4, 3.5, 4.5, 5.5, 6.5, 7.5,
                8.5, 1LL << 40);
  EXPECT_STREQ(buffer, "-1 c text -2 0.5 -3 1.5 ff 2.5 4 3.5 4.5 5.5 6.5 7.5 8.5 1099511627776");
}

TEST(NativeConventionsTest, AListOfVariableArgumentsIsHandedOn) {
  EXPECT_EQ(printed("%d %g %s %d %d %d %d %d %g", 1, 2.5, "three", 4, 5, 6, 7, 8, 9.5),
            "1 2.5 three 4 5 6 7 8 9.5");
}

TEST(NativeConventionsTest, ALongDoubleIsPrinted) {
  EXPECT_EQ(printed("%Lg|%-8.2Lf|%d|%%L|%*Lg", 0.5L, 1.25L, 3, 6, 2.5L), "0.5|1.25    |3|%L|   2.5");
}

TEST(NativeConventionsTest, ALongDoubleIsRead) {
  long double number = 0;
  int after = 0;
  ASSERT_EQ(std::sscanf("0.25 7", "%Lf %d", &number, &after), 2);
  EXPECT_EQ(number, 0.25L);
  EXPECT_EQ(after, 7);
  EXPECT_EQ(std::strtold("-1.5", nullptr), -1.5L);
  EXPECT_EQ(std::wcstold(L"2.5", nullptr), 2.5L);
  EXPECT_EQ(std::to_string(1.5L), "1.500000");
  EXPECT_EQ(std::to_wstring(1.5L), L"1.500000");
}

TEST(NativeConventionsTest, AFileGetsTheModeThatItIsOpenedWith) {
  const test::TempDir dir;
  const std::string path = dir / "file";
  const mode_t before = ::umask(0);
  const int file = ::open(path.c_str(), O_CREAT | O_RDWR, 0621);
  ::umask(before);
  ASSERT_GE(file, 0);
  struct stat status;
  ASSERT_EQ(::fstat(file, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0621);
  EXPECT_EQ(::fcntl(file, F_SETFD, FD_CLOEXEC), 0);
  EXPECT_EQ(::fcntl(file, F_GETFD), FD_CLOEXEC);
  ::close(file);
}

TEST(NativeConventionsTest, AskingForAThreadLocalVariableLeavesOtherValuesAlone) {
  double first = 0, second = 0;
  std::thread([&] {
    first = test::sumAcrossThreadLocal(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14);
    second = test::sumAcrossThreadLocal(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14);
  }).join();
  EXPECT_EQ(first, 105 + 1);
  EXPECT_EQ(second, 105 + 2);
}

TEST(NativeConventionsTest, WhatAFrameKeepsInRegistersOutlivesAnException) {
  EXPECT_EQ(test::sumAcrossException(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14), 105);
}

}  // namespace
}  // namespace kes
