#include "Listener.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include <gmock/gmock.h>

#include "support/TempDir.h"
#include "wire/Unix.h"

namespace kes::driver {
namespace {

using test::TempDir;
using test::writeFile;
using testing::HasSubstr;

bool connects(const std::string& path) {
  const auto socket = iokit::makeSocket();
  const auto address = iokit::addressOf(path);
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0;
}

std::string errorOf(const std::string& directory) {
  try {
    const Listener listener(directory, "C", 0600);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

std::size_t entriesIn(const std::string& directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(ListenerTest, TheSocketIsTheOnlyNameAndGoesWithTheObject) {
  const TempDir directory;
  {
    const Listener listener(directory.path(), "C", 0600);
    EXPECT_EQ(listener.path(), directory / "C.sock");
    EXPECT_EQ(entriesIn(directory.path()), 1u);
    EXPECT_TRUE(connects(listener.path()));
    EXPECT_TRUE(listener.accept());
    EXPECT_FALSE(listener.accept());
  }
  EXPECT_EQ(entriesIn(directory.path()), 0u);
}

TEST(ListenerTest, TheModeIsTheGivenOneWhateverTheUmask) {
  const TempDir directory;
  const mode_t mask = ::umask(077);
  const Listener listener(directory.path(), "C", 0666);
  ::umask(mask);
  struct stat info {};
  ASSERT_EQ(::stat(listener.path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777u, 0666u);
}

TEST(ListenerTest, TheDirectoryIsMadeIfItIsMissing) {
  const TempDir directory;
  const Listener listener(directory / "new", "C", 0600);
  EXPECT_TRUE(connects(directory / "new/C.sock"));
}

TEST(ListenerTest, ASecondDriverIsRefusedAndTheFirstGoesOn) {
  const TempDir directory;
  const Listener first(directory.path(), "C", 0600);
  EXPECT_THAT(errorOf(directory.path()), HasSubstr("a driver is there already"));
  EXPECT_TRUE(connects(first.path()));
  EXPECT_EQ(entriesIn(directory.path()), 1u);
}

TEST(ListenerTest, ASocketThatADeadDriverLeftIsReplaced) {
  const TempDir directory;
  {
    const auto socket = iokit::makeSocket();
    const auto address = iokit::addressOf(directory / "C.sock");
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
  }
  ASSERT_FALSE(connects(directory / "C.sock"));
  const Listener listener(directory.path(), "C", 0600);
  EXPECT_TRUE(connects(listener.path()));
  EXPECT_EQ(entriesIn(directory.path()), 1u);
}

TEST(ListenerTest, AFileThatIsNoSocketIsLeftAlone) {
  const TempDir directory;
  writeFile(directory / "C.sock", "precious");
  EXPECT_THAT(errorOf(directory.path()), HasSubstr("not a socket"));
  EXPECT_EQ(test::readFile(directory / "C.sock"), "precious");
  EXPECT_EQ(entriesIn(directory.path()), 1u);
}

TEST(ListenerTest, ANameThatSomebodyElseTookMeanwhileIsNotRemoved) {
  const TempDir directory;
  {
    const Listener first(directory.path(), "C", 0600);
    ::unlink(first.path().c_str());
    writeFile(first.path(), "another's");
  }
  EXPECT_EQ(test::readFile(directory / "C.sock"), "another's");
}

TEST(ListenerTest, APathTooLongForASocketIsSaid) {
  const TempDir directory;
  EXPECT_THAT(errorOf(directory / std::string(110, 'd')), HasSubstr("may not be that long"));
  EXPECT_EQ(entriesIn(directory.path()), 0u);
}

TEST(ListenerTest, ADirectoryThatCannotBeMadeIsSaid) {
  EXPECT_THAT(errorOf("/proc/nothing/here"), HasSubstr("cannot create /proc/nothing/here"));
}

}  // namespace
}  // namespace kes::driver
