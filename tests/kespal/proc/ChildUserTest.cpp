// Programs that are started as another user.
#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <iostream>

#include "kespal/error/StaticError.h"
#include "kespal/proc/ChildFixture.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace kes::proc {
namespace {

using Step = StartFailure::Step;
using test::Call;
using test::Refuse;
using test::TempDir;

/// Nobody has this account.
constexpr unsigned stranger = 64444, strangers = 64445;

UserInfo account(unsigned uid = stranger, unsigned gid = strangers) {
  UserInfo user;
  user.uid = uid;
  user.gid = gid;
  return user;
}

/// What a process says that starts a shell command as the stranger: what the command writes, how it ended,
/// and what failed. The process has the groups 4 and 27 if it may.
std::string asStranger(
    const std::string& command, const std::function<void(Child&)>& setUp = [](Child&) {}) {
  const auto result = test::inChild([&] {
    time::ClockBase::init();
    const gid_t groups[] = {4, 27};
    (void)::setgroups(2, groups);
    Child child({"/bin/sh", "-c", command});
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    child.setStderr(null);
    child.setUser(account());
    setUp(child);
    child.create();
    std::cout << child.wait().status / 256;
    if (const auto failure = child.startFailure()) std::cout << ", " << *failure;
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
  return result.out;
}

/// Prints the real, effective and saved ids, and the groups.
const std::string identity =
    "sed -En 's/^(Uid|Gid|Groups):[[:space:]]*//p' /proc/self/status | tr -s '\\t ' ' '; ";

struct ChildUserTest : ChildTest {
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start a program as another user";
  }
};

TEST_F(ChildUserTest, AProgramHasAllIdsOfItsUserAndNoOtherGroup) {
  EXPECT_EQ(asStranger(identity), "64444 64444 64444 64444\n64445 64445 64445 64445\n\n0");
}

TEST_F(ChildUserTest, AProgramIsAMemberOfTheGroupsThatWereAskedFor) {
  const auto withGroups = [](const std::set<unsigned>& groups) {
    return asStranger(identity + "true", [&](Child& child) { child.setUser(account(), groups); });
  };
  const std::string ids = "64444 64444 64444 64444\n64445 64445 64445 64445\n";
  EXPECT_EQ(withGroups({27, 5}), ids + "5 27 \n0");
  EXPECT_EQ(withGroups({strangers}), ids + "64445 \n0");
}

TEST_F(ChildUserTest, TheParentKeepsItsIdentityAndItsCoreDumps) {
  const auto result = test::inChild([] {
    time::ClockBase::init();
    const gid_t groups[] = {4, 27};
    if (::setgroups(2, groups) != 0) return 1;
    ::prctl(PR_SET_DUMPABLE, 1);
    Child child({"/bin/true"});
    child.setUser(account());
    child.create();
    const int status = child.wait().status;
    Child::exit();
    gid_t kept[8];
    const int count = ::getgroups(8, kept);
    std::cout << ::getuid() << ::geteuid() << ::getgid() << ::getegid() << ' ' << count << ' ' << kept[0]
              << ' ' << kept[1] << ' ' << ::prctl(PR_GET_DUMPABLE);
    return status;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
  EXPECT_EQ(result.out, "0000 2 4 27 1");
}

TEST_F(ChildUserTest, TheProgramCannotBecomeRootAgain) {
  EXPECT_EQ(asStranger("setpriv --reuid 0 true 2>/dev/null && echo root; "
                       "setpriv --regid 0 --keep-groups true 2>/dev/null && echo group; true"),
            "0");
}

TEST_F(ChildUserTest, TheDirectoryIsEnteredWithTheRightsOfTheUser) {
  const TempDir dir;
  ::chmod(dir.path().c_str(), 0700);
  const auto in = [](const std::string& directory) {
    return asStranger("pwd", [&](Child& child) { child.setWorkingDirectory(directory); });
  };
  EXPECT_EQ(in(dir.path()), "125, working directory: Permission denied (13)");
  EXPECT_EQ(in("/usr"), "/usr\n0");
}

TEST_F(ChildUserTest, TheProgramIsExecutedWithTheRightsOfTheUser) {
  const TempDir dir;
  for (std::string folder = dir.path(); folder != "/tmp" && folder.size() > 1;
       folder = folder.substr(0, folder.rfind('/'))) {
    ::chmod(folder.c_str(), 0755);
  }
  test::writeFile(dir / "roots", "#!/bin/sh\n");
  ::chmod((dir / "roots").c_str(), 0700);
  EXPECT_EQ(asStranger("", [&](Child& child) { child.setArguments({dir / "roots"}); }),
            "125, exec: Permission denied (13)");
}

TEST_F(ChildUserTest, TheStreamsAreThoseThatRootOpened) {
  const TempDir dir;
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(asStranger("id -u", [out](Child& child) { child.setStdout(out); }), "0");
  ::close(out);
  EXPECT_EQ(test::readFile(dir / "out"), "64444\n");
}

TEST_F(ChildUserTest, EveryStepThatIsRefusedIsTold) {
  const std::pair<Call, std::string> steps[] = {{Call::setgroups, "supplementary groups"},
                                                {Call::setegid, "group id"},
                                                {Call::setgid, "group id"},
                                                {Call::setuid, "user id"}};
  for (const auto& refused : steps) {
    std::optional<Refuse> refusing;
    EXPECT_EQ(asStranger("true", [&](Child&) { refusing.emplace(refused.first, EINVAL); }),
              "125, " + refused.second + ": Invalid argument (22)");
  }
}

TEST_F(ChildUserTest, ProcessesThatAreTooManyForTheUserAreTold) {
  std::optional<Refuse> refusing;
  EXPECT_EQ(asStranger("true", [&](Child&) { refusing.emplace(Call::setuid, EAGAIN); }),
            "125, user id: Resource temporarily unavailable (" + std::to_string(EAGAIN) + ")");
}

TEST_F(ChildUserTest, AChangeThatOnlySeemsToBeMadeIsFoundOut) {
  for (const Call call : {Call::setuid, Call::setgid}) {
    std::optional<Refuse> doingNothing;
    EXPECT_EQ(asStranger("true", [&](Child&) { doingNothing.emplace(call, 0); }),
              "125, way back to the former user: Operation not permitted (1)");
  }
}

TEST_F(ChildUserTest, ANumberThatIsNoGroupIsRefused) {
  EXPECT_EQ(asStranger("true", [](Child& child) { child.setUser(account(), {0xFFFFFFFF}); }),
            "125, supplementary groups: Invalid argument (22)");
}

TEST_F(ChildUserTest, AProcessCanBecomeTheProgramAsAnotherUser) {
  const auto result = test::inChild([] {
    Child child({"/bin/sh", "-c", identity});
    child.setUser(account(), {5});
    child.create(/*inPlace=*/true);
    return 1;
  });
  EXPECT_EQ(result.out, "64444 64444 64444 64444\n64445 64445 64445 64445\n5 \n");
}

TEST_F(ChildUserTest, RootThatActsAsAnotherUserForAWhileIsNotEnough) {
  EXPECT_EQ(asStranger("true", [](Child&) { EXPECT_EQ(::seteuid(stranger), 0); }),
            "125, supplementary groups: Operation not permitted (1)");
}

TEST_F(ChildUserTest, AFailureIsSaidOnStandardErrorWithItsSite) {
  const auto result = test::inChild([] {
    time::ClockBase::init();
    Child child({"/bin/true"});
    child.setUser(account());
    const Refuse refusing(Call::setuid, EPERM);
    child.create();
    const int code = WEXITSTATUS(child.wait().status);
    Child::exit();
    return code;
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err, testing::MatchesRegex(
                              "In child process [0-9]+ \\(/bin/true\\):\n\nCannot become another user:\n"
                              "(.|\n)*src/os/posix/proc/Program:[0-9]+ \\(changeUser\\)(.|\n)*"
                              "System/Library call error: Operation not permitted \\(1\\)\n\n"));
}

TEST(ChildUserByOthersTest, IsRefused) {
  const auto result = test::asNobody([] {
    time::ClockBase::init();
    Child child({"/bin/true"});
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    child.setStderr(null);
    child.setUser(account());
    child.create();
    std::cout << WEXITSTATUS(child.wait().status) << ", " << *child.startFailure();
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
  EXPECT_EQ(result.out, "125, supplementary groups: Operation not permitted (1)");
}

TEST(ChildUserByOthersTest, IdsThatAreUnknownOrRootsAreRefusedAtOnce) {
  Child child({"/bin/true"});
  for (const UserInfo& user : {UserInfo(), account(0), account(stranger, 0), account(0xFFFFFFFF),
                               account(0, 0), account(stranger, 0xFFFFFFFF)}) {
    EXPECT_THROW(child.setUser(user), UsageError) << user.uid << ' ' << user.gid;
  }
}

}  // namespace
}  // namespace kes::proc
