#include "kespal/UserInfo.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>

#include "kespal/GroupInfo.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "support/FakeAccounts.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"

namespace kes {
namespace {

using test::accounts;
using test::FakeAccounts;
using test::raisedAs;

std::string outputOf(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  std::string text;
  for (int c; (c = std::fgetc(pipe.get())) != EOF;) text += static_cast<char>(c);
  return text;
}

std::vector<std::string> fieldsOf(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream stream(line);
  for (std::string field; std::getline(stream, field, ':');) fields.push_back(field);
  fields.resize(7);
  return fields;
}

std::vector<std::string> passwordLines() {
  std::vector<std::string> lines;
  std::istringstream stream(outputOf("getent passwd"));
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

TEST(UserInfoTest, EveryAccountIsAsGetentShowsIt) {
  const std::vector<std::string> lines = passwordLines();
  ASSERT_FALSE(lines.empty());
  for (const std::string& line : lines) {
    const auto fields = fieldsOf(line);
    const UserInfo user(fields[0]);
    EXPECT_EQ(user.name, fields[0]);
    EXPECT_EQ(std::to_string(user.uid), fields[2]);
    EXPECT_EQ(std::to_string(user.gid), fields[3]);
    EXPECT_EQ(user.home, fields[5]);
    EXPECT_EQ(user.shell, fields[6]);
    EXPECT_EQ(user.group, fieldsOf(outputOf("getent group " + fields[3]))[0]);
    EXPECT_EQ(user.group + '\n', outputOf("id -gn " + fields[0]));
  }
}

TEST(UserInfoTest, AnAccountFoundByIdIsTheOneFoundByName) {
  for (const std::string& line : passwordLines()) {
    const UserInfo byName(fieldsOf(line)[0]);
    const UserInfo byId(byName.uid);
    EXPECT_EQ(byId.uid, byName.uid);
    EXPECT_EQ(std::to_string(byId.uid) + '\n', outputOf("id -u " + byId.name));
  }
}

TEST(UserInfoTest, AUserLookedUpByIdKeepsItsGroupIdUnlessTheGroupIsAskedFor) {
  UserInfo user;
  user.uid = UserInfo("nobody").uid;
  user.gid = 0;
  user.resolve(/*byName=*/false, /*withGroup=*/false);
  EXPECT_EQ(user.name, "nobody");
  EXPECT_EQ(user.gid, 0U);
  EXPECT_EQ(user.group, GroupInfo(0).name());

  user.resolve(/*byName=*/false, /*withGroup=*/true);
  EXPECT_EQ(user.gid, UserInfo("nobody").gid);
  EXPECT_EQ(user.group, GroupInfo(user.gid).name());
}

TEST(UserInfoTest, AUserLookedUpByNameGetsItsIdAndKeepsItsName) {
  UserInfo user;
  user.name = "root";
  user.gid = UserInfo("nobody").gid;
  user.resolve(/*byName=*/true, /*withGroup=*/false);
  EXPECT_EQ(user.uid, 0U);
  EXPECT_EQ(user.name, "root");
  EXPECT_EQ(user.gid, UserInfo("nobody").gid);
  EXPECT_FALSE(user.home.empty());
}

TEST(UserInfoTest, ALookupByIdIgnoresAndReplacesTheName) {
  UserInfo user;
  user.name = "someone else";
  user.uid = 0;
  user.resolve(/*byName=*/false, /*withGroup=*/true);
  EXPECT_EQ(user.name, "root");
}

TEST(UserInfoTest, AnUnsetRecordIsNobodyInParticular) {
  const UserInfo user;
  EXPECT_EQ(user.uid, 0xFFFFFFFF);
  EXPECT_EQ(user.gid, 0xFFFFFFFF);
  EXPECT_TRUE(user.name.empty() && user.group.empty() && user.home.empty() && user.shell.empty());
}

TEST(UserInfoTest, AMissingUserIsARuntimeErrorFromResolve) {
  const auto byName = raisedAs<RuntimeError>([] { UserInfo(std::string("no-such-user-here")); });
  EXPECT_EQ(byName.text(), "No such user");
  EXPECT_STREQ(byName.file(), "src/os/posix/UserInfo");
  EXPECT_STREQ(byName.function(), "resolve");
  EXPECT_EQ(raisedAs<RuntimeError>([] { UserInfo(4000000001U); }).text(), "No such user");
}

TEST(UserInfoTest, ANameThatGoesOnBehindAZeroByteIsNobodys) {
  const std::string name("root\0x", 6);
  EXPECT_EQ(raisedAs<RuntimeError>([&name] { UserInfo user(name); }).text(), "No such user");
}

TEST(UserInfoTest, AnUnresolvedRecordStaysAsItWas) {
  UserInfo user;
  user.name = "no-such-user-here";
  user.uid = 7;
  EXPECT_THROW(user.resolve(/*byName=*/true, /*withGroup=*/true), RuntimeError);
  EXPECT_EQ(user.uid, 7U);
  EXPECT_EQ(user.name, "no-such-user-here");
}

TEST(UserInfoTest, AFailingDatabaseIsAnOsErrorWithTheCodeThatWasReturned) {
  const FakeAccounts fake;
  for (const int code : {EIO, EMFILE, ENOENT, EINTR, ERANGE}) {
    accounts().passwordCodes = {code, code};
    errno = EDOM;
    const auto error = raisedAs<OsError>([] { UserInfo(0U); });
    EXPECT_EQ(error.errnum(), code);
    EXPECT_STREQ(error.file(), "src/os/posix/UserInfo");
    EXPECT_STREQ(error.function(), "resolve");
    EXPECT_EQ(raisedAs<OsError>([] { UserInfo(std::string("root")); }).errnum(), code);
  }
}

TEST(UserInfoTest, AnAccountWithoutHomeAndShellHasEmptyOnes) {
  const FakeAccounts fake;
  accounts().password = {.name = "ghost", .uid = 77, .gid = 0, .home = nullptr, .shell = nullptr};
  const UserInfo user(77U);
  EXPECT_EQ(user.name, "ghost");
  EXPECT_EQ(user.home, "");
  EXPECT_EQ(user.shell, "");
}

TEST(UserInfoTest, AnAccountWhoseGroupIsMissingIsTheErrorOfTheGroup) {
  const FakeAccounts fake;
  accounts().password = {.name = "ghost", .uid = 77, .gid = 4000000002U, .home = "/", .shell = "/bin/sh"};
  EXPECT_EQ(raisedAs<RuntimeError>([] { UserInfo(77U); }).text(), "no matching group");
}

TEST(UserInfoTest, PrintingWritesFourLines) {
  UserInfo user;
  user.uid = 1000;
  user.gid = 4294967294U;
  user.name = "kes";
  user.group = "staff";
  user.home = "/home/kes";
  user.shell = "/bin/sh";
  std::ostringstream stream;
  stream << std::hex << user;
  EXPECT_EQ(stream.str(), "User: kes (1000)\nGroup: staff (4294967294)\nHome: /home/kes\nShell: /bin/sh\n");
}

TEST(UserInfoTest, WithoutATerminalTheLoginNameIsEmpty) {
  const auto child = test::inChild([] {
    ::setsid();
    for (int fd = 0; fd < 3; ++fd) ::close(fd);
    accounts().loginCode = ENXIO;
    UserInfo::m_login_name = "earlier";
    UserInfo::init();
    return UserInfo::m_login_name.empty() ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(UserInfoTest, TheLoginNameIsThatOfTheTerminal) {
  const FakeAccounts fake;
  accounts().login = "kes";
  UserInfo::init();
  EXPECT_EQ(UserInfo::m_login_name, "kes");
  accounts().login = std::string(31, 'x');
  UserInfo::setLoginName();
  EXPECT_EQ(UserInfo::m_login_name, std::string(31, 'x'));
  accounts().login = std::string(32, 'x');
  UserInfo::setLoginName();
  EXPECT_EQ(UserInfo::m_login_name, "") << "a name that does not fit is unknown";
}

}  // namespace
}  // namespace kes
