// What a Mac is asked about files, terminals and captures (tests/macos/questions.txt). Portable, so that
// Linux can show that the questions are put right.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "kespal/EchoGuard.h"
#include "kespal/Terminal.h"
#include "kespal/error/FsError.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Lock.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Pipe.h"
#include "kespal/fs/SaveFile.h"
#include "kespal/fs/StreamFile.h"
#include "kespal/fs/Tree.h"
#include "kespal/fs/TreeCopier.h"
#include "kespal/time/Clock.h"
#include "pcaplib/Writer.h"
#include "pcaplib/capture.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::readFile;
using test::TempDir;
using test::writeFile;

TEST(FilePromisesTest, OperationsAndSearchesRaiseByTheNameOfTheErrno) {
  const TempDir dir;
  Ops::makedirs((dir / "one/two").c_str());
  writeFile(dir / "one/a.txt", "text");
  EXPECT_EQ(Ops::glob(dir / "one/*.txt"), std::list<std::string>{dir / "one/a.txt"});
  EXPECT_EQ(Ops::which("sh").substr(0, 1), "/");
  EXPECT_THROW(Ops::mkdir((dir / "one").c_str()), FileExistsError);
  StreamFile file;
  EXPECT_THROW(file.open((dir / "none").c_str(), File::READ), NoSuchFileError);
  Ops::removeTree((dir / "one").c_str());
  EXPECT_FALSE(Ops::exists((dir / "one").c_str(), /*follow=*/false));
}

TEST(FilePromisesTest, MoreThanOneCallMovesIsNoError) {
  constexpr std::size_t size = std::size_t{INT_MAX} + 4096;
  void* const zeros = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANON, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);
  StreamFile sink;
  sink.open(NULLDEV, File::WRITE);
  const std::size_t written = sink.write(zeros, size);
  EXPECT_GT(written, size / 2);
  EXPECT_LE(written, std::size_t{INT_MAX});
  ::munmap(zeros, size);
}

TEST(FilePromisesTest, ThePipesOfAProgramStayOutOfOthers) {
  const Pipe pipe = Pipe::make();
  for (const int end : {pipe.readEnd, pipe.writeEnd}) {
    EXPECT_EQ(::fcntl(end, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    ::close(end);
  }
}

TEST(FilePromisesTest, ASavedFileTakesThePlaceOfTheFormerOneAtItsCommit) {
  const TempDir dir;
  writeFile(dir / "file", "before");
  SaveFile file((dir / "file").c_str());
  file.write("after", 5);
  EXPECT_EQ(readFile(dir / "file"), "before");
  file.commit();
  EXPECT_EQ(readFile(dir / "file"), "after");
}

TEST(FilePromisesTest, ALockOnAFileKeepsOthersOut) {
  const TempDir dir;
  StreamFile mine, others;
  mine.open((dir / "file").c_str(), File::READ_WRITE, File::CREATE);
  others.open((dir / "file").c_str(), File::READ_WRITE);
  Lock held, wanted;
  held.set(mine.fd());
  wanted.set(others.fd());
  held.writeLock();
  EXPECT_FALSE(wanted.tryReadLock());
  held.unlock();
  EXPECT_TRUE(wanted.tryWriteLock());
}

/// A tree with a file, and a link that leads out of it.
void makeTree(const TempDir& dir) {
  Ops::makedirs((dir / "tree/sub").c_str());
  writeFile(dir / "tree/sub/file", "content");
  writeFile(dir / "outside", "stays");
  Ops::symlink((dir / "tree/link").c_str(), (dir / "outside").c_str());
}

TEST(FilePromisesTest, ATreeIsCopiedAndRemovedWithoutFollowingLinks) {
  const TempDir dir;
  makeTree(dir);
  ASSERT_TRUE(TreeCopier(COPY_ACCESS).copy((dir / "tree").c_str(), (dir / "copy").c_str()));
  struct stat original {};
  struct stat copied {};
  ASSERT_EQ(::lstat((dir / "tree/sub/file").c_str(), &original), 0);
  ASSERT_EQ(::lstat((dir / "copy/sub/file").c_str(), &copied), 0);
  EXPECT_EQ(copied.st_mtime, original.st_mtime);
  ASSERT_EQ(::lstat((dir / "copy/link").c_str(), &copied), 0);
  EXPECT_TRUE(S_ISLNK(copied.st_mode));
  EXPECT_EQ(removeAll((dir / "copy").c_str()), 4U);
  EXPECT_EQ(readFile(dir / "outside"), "stays");
}

/// Both ends of a new terminal, of 91 columns and 17 rows.
struct Terminals {
  Terminals() {
    ::grantpt(keyboard);
    ::unlockpt(keyboard);
    terminal = ::open(::ptsname(keyboard), O_RDWR | O_NOCTTY);
    winsize size{};
    size.ws_col = 91;
    size.ws_row = 17;
    ::ioctl(terminal, TIOCSWINSZ, &size);
  }
  ~Terminals() {
    ::close(terminal);
    ::close(keyboard);
  }
  bool echoes() const {
    termios settings{};
    ::tcgetattr(terminal, &settings);
    return (settings.c_lflag & ECHO) != 0;
  }
  int keyboard = ::posix_openpt(O_RDWR | O_NOCTTY), terminal = -1;
};

TEST(FilePromisesTest, ATerminalTellsItsSizeAndHidesWhatIsTyped) {
  const Terminals terminals;
  EXPECT_TRUE(terminals.echoes());
  {
    const term::EchoGuard guard(terminals.terminal);
    EXPECT_FALSE(terminals.echoes());
  }
  EXPECT_TRUE(terminals.echoes());
  const test::ChildResult child = test::inChild([&terminals] {
    ::dup2(terminals.terminal, 1);
    const term::Terminal::Size size = term::Terminal(term::Terminal::Stdout).size();
    return size.columns == 91 && size.rows == 17 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(FilePromisesTest, BothWritersOfCapturesWriteTheSameBytes) {
  time::ClockBase::init();
  const TempDir dir;
  const unsigned char packet[] = {1, 2, 3, 4};
  const std::string header("\xD4\xC3\xB2\xA1\2\0\4\0\0\0\0\0\0\0\0\0", 16);
  pcap::Writer writer((dir / "writer.pcap").c_str(), {});
  const timespec time{1'700'000'000, 5'000};
  ASSERT_EQ(writer.write({.data = packet, .length = sizeof packet, .time = &time}), 0);
  const std::string written = readFile(dir / "writer.pcap");
  EXPECT_EQ(written.size(), 24 + 16 + sizeof packet);
  EXPECT_EQ(written.substr(0, 16), header);
  EXPECT_EQ(written.substr(24), std::string("\0\xF1\x53\x65\5\0\0\0\4\0\0\0\4\0\0\0\1\2\3\4", 20));

  ASSERT_TRUE(DumpOpen((dir / "dump_%s.pcap").c_str(), PCAP_ETHERNET));
  EXPECT_TRUE(DumpPacket(packet, sizeof packet, PCAP_ETHERNET));
  EXPECT_TRUE(DumpClose(PCAP_ETHERNET));
  const std::string dumped = readFile(dir / "dump_eth.pcap");
  EXPECT_EQ(dumped.size(), written.size());
  EXPECT_EQ(dumped.substr(0, 16), header);
  EXPECT_EQ(dumped.substr(32), written.substr(32));
}

}  // namespace
}  // namespace kes::fs
