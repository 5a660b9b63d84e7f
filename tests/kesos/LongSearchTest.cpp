// Searches of a folder whose name leaves no room for what is appended to it.
#include <array>
#include <cerrno>
#include <fstream>
#include <string>

#include "kesos/files.h"
#include "support/TempDir.h"

namespace {

/// The folder by a name of so many characters.
std::string named(const std::string& folder, std::size_t length) {
  std::string name = folder;
  while (name.size() + 2 < length) name += "/.";
  name.insert(0, length - name.size(), '/');
  return name;
}

int searchResult(const std::string& folder) {
  KesOsFind find{};
  std::array<char, KESOS_PATH_SIZE> name{};
  errno = 0;
  const int result = KesOsFindFirst(&find, folder.c_str(), name.data(), nullptr, nullptr, nullptr);
  const int errnum = errno;
  if (result == 1) KesOsFindClose(&find);
  errno = errnum;
  return result;
}

TEST(LongSearchTest, AFolderWhoseNameFillsTheRoomIsSearchedOnlyIfTheSlashFitsAsWell) {
  const kes::test::TempDir dir;
  std::ofstream(dir / "file");
  const std::string longest = named(dir.path(), KESOS_PATH_SIZE - 2),
                    tooLong = named(dir.path(), KESOS_PATH_SIZE - 1);
  ASSERT_EQ(longest.size(), std::size_t{KESOS_PATH_SIZE - 2});
  ASSERT_EQ(KesOsIsDir(tooLong.c_str()), 1);
  EXPECT_EQ(searchResult(longest), 1) << errno;
  EXPECT_EQ(searchResult(tooLong), 0);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
