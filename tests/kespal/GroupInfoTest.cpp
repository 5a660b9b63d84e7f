#include "kespal/GroupInfo.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>

#include "kespal/Helper.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "support/FakeAccounts.h"

namespace kes {
namespace {

using test::accounts;
using test::FakeAccounts;
using Names = std::set<std::string>;

std::string printed(const GroupInfo& group) {
  std::ostringstream stream;
  stream << group;
  return stream.str();
}

std::vector<std::string> groupLines() {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen("getent group", "r"), ::pclose);
  std::vector<std::string> lines(1);
  for (int c; (c = std::fgetc(pipe.get())) != EOF;) {
    if (c != '\n') {
      lines.back() += static_cast<char>(c);
    } else {
      lines.emplace_back();
    }
  }
  lines.pop_back();
  return lines;
}

TEST(GroupInfoTest, EveryGroupIsAsGetentShowsIt) {
  const std::vector<std::string> lines = groupLines();
  ASSERT_FALSE(lines.empty());
  for (const std::string& line : lines) {
    std::vector<std::string> fields, members;
    helper::split(line, ':', fields, /*strip=*/false, /*keepEmpty=*/true);
    ASSERT_EQ(fields.size(), 4u) << line;
    helper::split(fields[3], ',', members, /*strip=*/false, /*keepEmpty=*/false);
    const GroupInfo byName(fields[0]);
    EXPECT_EQ(byName.name(), fields[0]);
    EXPECT_EQ(std::to_string(byName.gid()), fields[2]);
    EXPECT_EQ(byName.members(), Names(members.begin(), members.end())) << line;
    EXPECT_EQ(GroupInfo(byName.gid()).gid(), byName.gid());
  }
}

TEST(GroupInfoTest, AGroupBecomesAnotherByIdAndByName) {
  const GroupInfo daemon(std::string("daemon"));
  GroupInfo group(0U);
  EXPECT_EQ(group.name(), "root");
  group.setID(daemon.gid());
  EXPECT_EQ(group.name(), "daemon");
  group.setName("root");
  EXPECT_EQ(group.gid(), 0U);
}

TEST(GroupInfoTest, AGroupThatDoesNotExistRaisesNoMatchingGroup) {
  for (const auto& lookUp :
       {+[] { GroupInfo(std::string("no-such-group-here")); }, +[] { GroupInfo(4000000003U); },
        +[] { GroupInfo(std::string{}); }, +[] { GroupInfo(std::string("root\0x", 6)); }}) {
    try {
      lookUp();
      ADD_FAILURE() << "found";
    } catch (const RuntimeError& error) {
      EXPECT_EQ(error.text(), "no matching group");
      EXPECT_STREQ(error.file(), "src/os/posix/GroupInfo");
      EXPECT_STREQ(error.function(), "retrieve");
    }
  }
}

TEST(GroupInfoTest, AFailedLookupLeavesTheKeyAndNoMembers) {
  const FakeAccounts fake;
  accounts().group = {.name = "crowd", .gid = 5, .members = {"a", "b"}};
  GroupInfo group(5U);
  ASSERT_EQ(group.members().size(), 2u);
  accounts().group.reset();
  EXPECT_THROW(group.setName("no-such-group-here"), RuntimeError);
  EXPECT_EQ(group.name(), "no-such-group-here");
  EXPECT_EQ(group.gid(), GroupInfo::Unknown);
  EXPECT_TRUE(group.members().empty());
  EXPECT_THROW(group.setID(4000000003U), RuntimeError);
  EXPECT_EQ(group.name(), "");
  EXPECT_EQ(group.gid(), 4000000003U);
}

TEST(GroupInfoTest, RetrieveLooksUpByNameWhenThereIsOneAndTakesWhatItFinds) {
  const FakeAccounts fake;
  accounts().group = {.name = "crowd", .gid = 5, .members = {"a"}};
  GroupInfo group(std::string("crowd"));
  accounts().group = {.name = "crowd", .gid = 6, .members = {"c", "b"}};
  group.retrieve();
  EXPECT_EQ(group.gid(), 6U);
  EXPECT_EQ(group.members(), (Names{"b", "c"}));
}

TEST(GroupInfoTest, MembersAreASetInOrder) {
  const FakeAccounts fake;
  accounts().group = {.name = "crowd", .gid = 5, .members = {"zoe", "adam", "zoe", "mia"}};
  EXPECT_EQ(printed(GroupInfo(5U)), "Group: crowd (5)\nMembers:\n- adam\n- mia\n- zoe");
}

TEST(GroupInfoTest, AGroupWithoutMembersPrintsOnlyItsGroupLine) {
  const FakeAccounts fake;
  accounts().group = {.name = "empty", .gid = 4294967294U, .members = {}};
  EXPECT_EQ(printed(GroupInfo(std::string("empty"))), "Group: empty (4294967294)");
}

TEST(GroupInfoTest, TheBufferStartsAt128BytesAndDoublesUntilThousandsOfMembersFit) {
  const FakeAccounts fake;
  test::Accounts::Group crowd{.name = "crowd", .gid = 5, .members = {}};
  for (int number = 0; number < 5000; ++number) crowd.members.push_back("member-" + std::to_string(number));
  accounts().group = crowd;
  const GroupInfo group(std::string("crowd"));
  EXPECT_EQ(group.members(), Names(crowd.members.begin(), crowd.members.end()));

  const std::vector<std::size_t>& sizes = accounts().groupBuffers;
  ASSERT_GT(sizes.size(), 5u);
  EXPECT_EQ(sizes.front(), 128u);
  for (std::size_t at = 1; at < sizes.size(); ++at) EXPECT_EQ(sizes[at], 2 * sizes[at - 1]);
}

TEST(GroupInfoTest, AnInterruptedLookupIsTriedAgainWithTheSameBuffer) {
  const FakeAccounts fake;
  accounts().groupCodes = {EINTR, EINTR, ERANGE, EINTR};
  EXPECT_EQ(GroupInfo(0U).name(), "root");
  EXPECT_EQ(accounts().groupBuffers, (std::vector<std::size_t>{128, 128, 128, 256, 256}));
}

TEST(GroupInfoTest, AnyOtherCodeIsAnOsErrorWithIt) {
  const FakeAccounts fake;
  for (const int code : {EIO, ENFILE, ENOENT, ENOMEM}) {
    accounts().groupCodes = {code};
    try {
      GroupInfo group(0U);
      ADD_FAILURE() << "found";
    } catch (const OsError& error) {
      EXPECT_EQ(error.errnum(), code);
      EXPECT_STREQ(error.file(), "src/os/posix/GroupInfo");
      EXPECT_STREQ(error.function(), "retrieve");
    }
  }
}

}  // namespace
}  // namespace kes
