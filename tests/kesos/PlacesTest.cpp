#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "kesos/Ipc.h"
#include "kesos/files.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

using Buffer = std::array<char, KESOS_PATH_SIZE>;

TEST(PlacesTest, ATemporaryDirectoryIsMadeAsMktempMakesIt) {
  const TempDir dir;
  const ChildResult result = inChild([&dir] {
    ::setenv("TMPDIR", dir.path().c_str(), 1);
    Buffer buffer{}, second{};
    if (KesOsCreateTempdir(buffer.data(), buffer.size()) != 1) return 1;
    if (KesOsCreateTempdir(second.data(), second.size()) != 1) return 2;
    std::printf("%s\n%s", buffer.data(), second.data());
    return std::strcmp(buffer.data(), second.data()) != 0 ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
  const std::string path = result.out.substr(0, result.out.find('\n'));
  EXPECT_THAT(path, testing::MatchesRegex(dir.path() + "/kes-[[:alnum:]]{6}"));
  EXPECT_EQ(shell("stat -c '%F %a %u' " + path), shell("d=$(mktemp -d); stat -c '%F %a %u' $d; rmdir $d"));
}

TEST(PlacesTest, WithoutTheVariableTheDirectoryIsInTmp) {
  const ChildResult result = inChild([] {
    ::unsetenv("TMPDIR");
    Buffer buffer{};
    if (KesOsCreateTempdir(buffer.data(), buffer.size()) != 1) return 1;
    if (::rmdir(buffer.data()) != 0) return 2;
    return std::string_view(buffer.data()).starts_with("/tmp/kes-") ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(PlacesTest, ATemporaryDirectoryNeedsADirectoryAndABufferThatHoldsItsName) {
  const TempDir dir;
  writeFile(dir / "file", "");
  const ChildResult result = inChild([&dir] {
    Buffer buffer{};
    ::setenv("TMPDIR", (dir / "file").c_str(), 1);
    if (KesOsCreateTempdir(buffer.data(), buffer.size()) != 0) return 1;
    ::setenv("TMPDIR", "", 1);
    if (KesOsCreateTempdir(buffer.data(), buffer.size()) != 0) return 2;
    ::setenv("TMPDIR", dir.path().c_str(), 1);
    const std::size_t needed = dir.path().size() + sizeof "/kes-XXXXXX";
    if (KesOsCreateTempdir(buffer.data(), needed - 1) != 0 || errno != ENAMETOOLONG) return 3;
    if (buffer[needed - 2] != '\0' || KesOsCreateTempdir(buffer.data(), 0) != 0) return 4;
    if (KesOsCreateTempdir(nullptr, 100) != 0) return 5;
    return KesOsCreateTempdir(buffer.data(), needed) == 1 ? 0 : 6;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(shell("ls " + dir.path() + " | wc -l"), "2") << "the file and one directory";
}

TEST(PlacesTest, TheProgramKnowsItsDirectoryAndName) {
  const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe");
  Buffer path{}, name{};
  unsigned int error = 7;
  errno = EAGAIN;
  EXPECT_EQ(KesOsGetModuleFileName(path.data(), path.size(), name.data(), name.size(), &error), 1);
  EXPECT_EQ(path.data(), own.parent_path());
  EXPECT_EQ(name.data(), own.filename());
  EXPECT_EQ(error, 0U);
  path.fill('x');
  EXPECT_EQ(KesOsGetModulePath(path.data(), path.size(), nullptr), 1);
  EXPECT_EQ(path.data(), own.parent_path());
  EXPECT_EQ(KesOsGetModuleFileName(path.data(), path.size(), name.data(), 4, nullptr), 1);
  EXPECT_EQ(name.data(), own.filename().string().substr(0, 3)) << "bounded by its size";
}

TEST(PlacesTest, AProgramsDirectoryThatDoesNotFitIsAnError) {
  const std::size_t length = std::filesystem::read_symlink("/proc/self/exe").parent_path().string().size();
  Buffer path{};
  unsigned int error = 0;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, length}) {
    EXPECT_EQ(KesOsGetModulePath(path.data(), static_cast<unsigned int>(size), &error), 0);
    EXPECT_EQ(error, static_cast<unsigned int>(ENAMETOOLONG));
    EXPECT_EQ(path[0], '\0') << "nothing is shortened";
  }
  EXPECT_EQ(KesOsGetModulePath(path.data(), static_cast<unsigned int>(length) + 1, &error), 1);
  EXPECT_EQ(KesOsGetModulePath(nullptr, 100, &error), 0);
  EXPECT_NE(error, 0U);
}

/// What a name becomes.
std::pair<std::size_t, std::string> located(const std::string& name) {
  Buffer buffer{};
  std::memcpy(buffer.data(), name.data(), name.size());
  const std::size_t length = KesOsdGetPath(buffer.data());
  return {length, buffer.data()};
}

void makeProgram(const std::string& path, const std::string& mode) {
  writeFile(path, "");
  shell("chmod " + mode + " " + path);
}

TEST(PlacesTest, AProgramIsFoundInAUsualDirectoryBeforeThePath) {
  const TempDir dir;
  makeProgram(dir / "env", "755");
  makeProgram(dir / "kes-own-program", "755");
  const ChildResult result = inChild([&dir] {
    ::setenv("PATH", ("/nowhere:" + dir.path()).c_str(), 1);
    for (const char* name : {"env", "kes-own-program"}) std::printf("%s ", located(name).second.c_str());
    return static_cast<int>(located("env").first);
  });
  const std::string usual = access("/bin/env", X_OK) == 0 ? "/bin/env" : "/usr/bin/env";
  EXPECT_EQ(result.out, usual + " " + (dir / "kes-own-program") + " ");
  EXPECT_EQ(result.exitCode(), static_cast<int>(usual.size()));
}

TEST(PlacesTest, ANameWithASlashIsReturnedAsItIs) {
  EXPECT_EQ(located("./no/such"), (std::pair<std::size_t, std::string>{9, "./no/such"}));
}

TEST(PlacesTest, WithoutAProgramTheNameIsRestored) {
  EXPECT_EQ(located("kes-no-such-program"), (std::pair<std::size_t, std::string>{0, "kes-no-such-program"}));
  EXPECT_EQ(KesOsdGetPath(nullptr), 0U);
  const std::string longest(1023, 'x');
  EXPECT_EQ(located(longest), (std::pair<std::size_t, std::string>{0, longest}));
}

TEST(PlacesTest, TheOwnersPermissionCountsAndLongElementsArePassedOver) {
  const TempDir dir;
  makeProgram(dir / "kes-not-executable", "666");
  makeProgram(dir / "kes-owner-only", "700");
  const ChildResult result = inChild([&dir] {
    ::setenv("PATH", (std::string(1100, 'x') + "::" + dir.path()).c_str(), 1);
    if (located("kes-not-executable").first != 0) return 1;
    if (located("kes-owner-only").second != dir / "kes-owner-only") return 2;
    ::unsetenv("PATH");
    return located("kes-owner-only").first == 0 && located("sh").first != 0 ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

}  // namespace
