#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "iokit/UserClient.h"
#include "support/DriverProcess.h"
#include "support/ForkedChild.h"
#include "wire/Unix.h"

namespace kes::test {
namespace {

/// Listens at a path, as another user if one is named, until the object dies.
class PlainListener {
 public:
  PlainListener(const std::string& path, uid_t user) {
    ::unlink(path.c_str());
    int ready[2];
    if (::pipe(ready) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) listenForever(path, user, ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~PlainListener() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  [[noreturn]] static void listenForever(const std::string& path, uid_t user, int ready) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (user != ::geteuid() && ::setuid(user) != 0) ::_exit(1);
    const sys::Descriptor socket = iokit::makeSocket();
    const auto address = iokit::addressOf(path);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) ::_exit(2);
    if (::listen(socket.get(), 8) != 0 || ::write(ready, "r", 1) != 1) ::_exit(3);
    for (;;) ::pause();
  }

  pid_t pid_ = -1;
};

uid_t nobody() { return ::getpwnam("nobody")->pw_uid; }

class OwnerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make a socket of another user";
    ::setenv("KES_IOREGISTRY", directory_.path().c_str(), 1);
    std::filesystem::permissions(directory_.path(), std::filesystem::perms::all);
    std::filesystem::permissions(std::filesystem::path(directory_.path()).parent_path(),
                                 std::filesystem::perms::all);
  }

  TempDir directory_;
  std::string socket_ = directory_ / "kes_vpn_driver_keslbmac.sock";
};

TEST_F(OwnerTest, ASocketOfOneselfIsAMatchingService) {
  const PlainListener listener(socket_, ::geteuid());
  EXPECT_NE(matchService(), 0u);
}

TEST_F(OwnerTest, ASocketFileOfAnotherUserIsNoMatchingService) {
  const PlainListener listener(socket_, ::geteuid());
  ASSERT_EQ(::chown(socket_.c_str(), nobody(), static_cast<gid_t>(-1)), 0);
  EXPECT_EQ(matchService(), 0u);
}

TEST_F(OwnerTest, AListenerOfAnotherUserIsNoMatchingService) {
  const PlainListener listener(socket_, nobody());
  EXPECT_EQ(matchService(), 0u);
}

TEST_F(OwnerTest, AListenerOfAnotherUserBehindAFileOfRootsIsNoMatchingService) {
  const PlainListener listener(socket_, nobody());
  ASSERT_EQ(::chown(socket_.c_str(), 0, 0), 0);
  EXPECT_EQ(matchService(), 0u);
}

TEST_F(OwnerTest, RootsSocketIsAMatchingServiceForOthers) {
  const PlainListener listener(socket_, 0);
  std::filesystem::permissions(socket_, std::filesystem::perms::all);
  EXPECT_EQ(asNobody([] { return matchService() != 0 ? 0 : 1; }).exitCode(), 0);
}

TEST_F(OwnerTest, ASocketOfNobodysIsAMatchingServiceForNobody) {
  const PlainListener listener(socket_, nobody());
  EXPECT_EQ(asNobody([] { return matchService() != 0 ? 0 : 1; }).exitCode(), 0);
}

TEST_F(OwnerTest, ADriverOfRootsServesEverybody) {
  const DriverProcess driver;
  std::filesystem::permissions(driver.directory(), std::filesystem::perms::all);
  std::filesystem::permissions(std::filesystem::path(driver.directory()).parent_path(),
                               std::filesystem::perms::all);
  EXPECT_EQ(asNobody([] { return matchService() != 0 ? 0 : 1; }).exitCode(), 0);
  EXPECT_EQ(std::filesystem::status(driver.socket()).permissions(),
            static_cast<std::filesystem::perms>(0666));
}

}  // namespace
}  // namespace kes::test
