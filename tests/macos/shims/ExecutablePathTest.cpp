#include <mach-o/dyld.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "kespal/error/DynError.h"
#include "kespal/proc/Info.h"

namespace {
/// The path that the system gives; the real one when empty.
std::string scriptedPath;
}  // namespace

extern "C" int __real__NSGetExecutablePath(char* path, std::uint32_t* size);
extern "C" int __wrap__NSGetExecutablePath(char* path, std::uint32_t* size) {
  if (scriptedPath.empty()) return __real__NSGetExecutablePath(path, size);
  const auto needed = static_cast<std::uint32_t>(scriptedPath.size() + 1);
  if (*size < needed) {
    *size = needed;
    return -1;
  }
  std::memcpy(path, scriptedPath.c_str(), needed);
  return 0;
}

namespace kes::proc {
namespace {

TEST(MacExecutableTest, ExeIsThePathOfTheRunningProgram) {
  scriptedPath.clear();
  EXPECT_EQ(std::string(Info::exe()), std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(MacExecutableTest, APathThatJustFitsIsGivenWhole) {
  scriptedPath = std::string(1023, 'x');
  EXPECT_EQ(std::string(Info::exe()), scriptedPath);
}

TEST(MacExecutableTest, APathThatIsTooLargeRaisesDynErrorThatSaysHowMuchIsNeeded) {
  scriptedPath = std::string(1024, 'x');
  try {
    (void)Info::exe();
    FAIL();
  } catch (const DynError& error) {
    EXPECT_EQ(error.text(), "Executable path too large. Got: 1024 bytes, need 1025 bytes.");
    EXPECT_STREQ(error.file(), "src/os/darwin/proc/Info");
    EXPECT_EQ(error.line(), 97);
    EXPECT_STREQ(error.function(), "exe");
  }
}

}  // namespace
}  // namespace kes::proc
