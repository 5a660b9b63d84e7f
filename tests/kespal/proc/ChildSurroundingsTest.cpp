// What a child gets from its parent: streams, descriptors, environment, directory, group, signal mask.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>

#include "kespal/proc/ChildFixture.h"
#include "kespal/signal/Mask.h"
#include "support/ForkedChild.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace kes::proc {
namespace {

using test::inChild;
using test::TempDir;

/// The descriptors of this process that an exec keeps.
std::set<std::string> inheritedDescriptors() {
  std::set<std::string> kept;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const std::string fd = entry.path().filename();
    const int flags = ::fcntl(std::stoi(fd), F_GETFD);
    if (flags != -1 && (flags & FD_CLOEXEC) == 0) kept.insert(fd);
  }
  return kept;
}

TEST_F(ChildTest, StreamsAreRedirected) {
  const TempDir dir;
  test::writeFile(dir / "in", "from the file\n");
  const int in = ::open((dir / "in").c_str(), O_RDONLY | O_CLOEXEC);
  const int err = ::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(outputOf("cat; echo oops >&2",
                     [&](Child& child) {
                       child.setStdin(in);
                       child.setStderr(err);
                     }),
            "from the file\n");
  EXPECT_EQ(test::readFile(dir / "err"), "oops\n");
  ::close(in);
  ::close(err);
}

TEST_F(ChildTest, StreamsCanBePipes) {
  test::TestPipe to, from;
  Child child({"/bin/cat"});
  child.setStdin(to.reader);
  child.setStdout(from.writer);
  child.create(false);
  to.closeReader();
  from.closeWriter();
  to.write("through both\n");
  to.closeWriter();
  char text[64] = "";
  EXPECT_EQ(::read(from.reader, text, sizeof text - 1), 13);
  EXPECT_STREQ(text, "through both\n");
  EXPECT_EQ(child.wait(false, {}).status, 0);
}

TEST_F(ChildTest, StreamsAreInstalledOneAfterTheOtherOutputFirst) {
  const auto result = inChild([] {
    Child child({"/bin/sh", "-c", "echo out; echo err >&2"});
    child.setStdout(STDERR_FILENO);
    child.setStderr(STDOUT_FILENO);  // which is the error stream by then
    child.create(false);
    child.wait(false, {});
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "out\nerr\n");
}

TEST_F(ChildTest, TheErrorStreamCanBeTheNewOutputStream) {
  EXPECT_EQ(outputOf("echo out; echo err >&2", [](Child& child) { child.setStderr(STDOUT_FILENO); }),
            "out\nerr\n");
}

TEST_F(ChildTest, TheCloseOnExecFlagOfAHandedInDescriptorIsClearedAndStaysSo) {
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  Child child({"/bin/true"});
  child.setStdout(null);
  child.create(false);
  child.wait(false, {});
  EXPECT_EQ(::fcntl(null, F_GETFD) & FD_CLOEXEC, 0);
  ::close(null);
}

TEST_F(ChildTest, AChildGetsTheThreeStreamsAndNothingThatTheLibraryOpened) {
  const TempDir dir;
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Child child({"/bin/ls", "/proc/self/fd"});
  child.setStdout(out);
  child.create(false);
  child.wait(false, {});
  std::set<std::string> fds;
  std::istringstream numbers(test::readFile(dir / "out"));
  for (std::string fd; numbers >> fd;) fds.insert(fd);
  std::set<std::string> expected = inheritedDescriptors();
  EXPECT_TRUE(expected.contains(std::to_string(out)));
  for (const std::string& fd : expected) EXPECT_EQ(fds.erase(fd), 1U) << fd;
  EXPECT_EQ(fds.size(), 1U) << "only the one that ls lists the directory through";
  ::close(out);
}

TEST_F(ChildTest, WithoutAnEnvironmentTheChildInheritsOurs) {
  ::setenv("KES_TEST_INHERITED", "yes", 1);
  EXPECT_EQ(outputOf("echo $KES_TEST_INHERITED"), "yes\n");
}

TEST_F(ChildTest, AnEnvironmentReplacesOurs) {
  ::setenv("KES_TEST_INHERITED", "yes", 1);
  EXPECT_EQ(outputOf("echo $KES_TEST_INHERITED$OWN", [](Child& child) { child.setEnvironment({"OWN=1"}); }),
            "1\n");
}

TEST_F(ChildTest, AProgramWithoutSlashIsSearchedOnPathWithAndWithoutAnEnvironment) {
  for (const std::list<std::string>& environment : {std::list<std::string>{}, {"A=b"}}) {
    Child child({"true"});
    child.setEnvironment(environment);
    child.create(false);
    EXPECT_EQ(text(child.wait(false, {})), "finished: 1\nkilled: 0\ncode: 0");
  }
}

TEST_F(ChildTest, TheFileFoundOnPathBecomesTheFirstArgumentWhenThereIsAnEnvironment) {
  const TempDir dir;
  test::writeFile(dir / "probe", "#!/bin/sh\necho $0\n");
  std::filesystem::permissions(dir / "probe", std::filesystem::perms(0755));
  ::setenv("PATH", ("/no/such/directory::" + dir.path() + ":/bin:/usr/bin").c_str(), 1);
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Child child({"probe"});
  child.setEnvironment({"A=b"});
  child.setStdout(out);
  child.create(false);
  child.wait(false, {});
  ::close(out);
  EXPECT_EQ(test::readFile(dir / "out"), (dir / "probe") + "\n");
}

TEST_F(ChildTest, AProgramThatIsNowhereOnPathEndsWith125AndEnoent) {
  const auto result = inChild([] {
    Child child({"kes-no-such-program"});
    child.setEnvironment({"A=b"});
    child.create(false);
    const auto state = child.wait(false, {});
    Child::exit();
    return WEXITSTATUS(state.status);
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err, testing::HasSubstr("No such file or directory (2)"));
}

TEST_F(ChildTest, TheWorkingDirectoryIsTheChildsOnly) {
  const std::string before = std::filesystem::current_path();
  EXPECT_EQ(outputOf("pwd", [](Child& child) { child.setWorkingDirectory("/usr"); }), "/usr\n");
  EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST_F(ChildTest, AWorkingDirectoryThatCannotBeEnteredEndsTheChildWith125) {
  const auto result = inChild([] {
    Child child({"/bin/true"});
    child.setWorkingDirectory("/no/such/directory");
    child.create(false);
    const auto state = child.wait(false, {});
    Child::exit();
    return WEXITSTATUS(state.status);
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err,
              testing::MatchesRegex("In child process [0-9]+ \\(/bin/true\\):\n\nCannot change working "
                                    "directory:\n\n#1\\)\n\tException occured at (.|\n)*setCWD(.|\n)*"
                                    "\"/no/such/directory\"(.|\n)*"));
}

TEST_F(ChildTest, AChildCanLeadANewProcessGroup) {
  const auto groupOf = [](bool own) {
    return outputOf("ps -o pgid= -p $$; echo $$", [own](Child& child) { child.setNewProcessGroup(own); });
  };
  std::istringstream own(groupOf(true)), ours(groupOf(false));
  int group = 0, pid = 0;
  own >> group >> pid;
  EXPECT_EQ(group, pid);
  ours >> group >> pid;
  EXPECT_EQ(group, ::getpgrp());
}

TEST_F(ChildTest, EnteringANewProcessGroupThatFailsIsToldAndNoMore) {
  const auto result = inChild([] {
    ::setsid();
    enterNewProcessGroup();
    return 4;
  });
  EXPECT_EQ(result.exitCode(), 4);
  EXPECT_EQ(result.err, "Failed to set new process group. Errno = " + std::to_string(EPERM) + "\n");
}

TEST_F(ChildTest, AChildGetsTheSignalMaskThatThisProcessStartedWith) {
  const auto result = inChild([] {
    signal::Mask::call({SIGUSR1, SIGTERM}, SIG_BLOCK);
    std::cout << outputOf("grep SigBlk /proc/self/status");
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "SigBlk:\t0000000000000000\n");
}

}  // namespace
}  // namespace kes::proc
