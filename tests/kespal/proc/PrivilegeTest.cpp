#include "kespal/proc/Privilege.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "support/FaultyIds.h"
#include "support/ForkedChild.h"

// Every test changes identity in a forked child and compares what /proc says about it.

namespace kes::proc {
namespace {

using test::faultyIds;

constexpr unsigned root = 0;
/// Nobody has this account; it is small enough for containers, which know few ids.
constexpr unsigned stranger = 64444;

/// A record that names an account by its ids alone.
UserInfo ids(unsigned uid, unsigned gid) {
  UserInfo user;
  user.uid = uid;
  user.gid = gid;
  return user;
}

unsigned nobody() { return UserInfo(std::string("nobody")).uid; }
unsigned nogroup() { return UserInfo(std::string("nobody")).gid; }

std::string four(unsigned id) {
  const std::string text = std::to_string(id);
  return text + ' ' + text + ' ' + text;
}

/// "real effective saved/real effective saved/supplementary ..." of this process, or of a thread of it.
std::string identity(const std::string& task = "self") {
  std::ifstream status("/proc/" + task + "/status");
  std::string uid, gid, groups;
  for (std::string line; std::getline(status, line);) {
    std::istringstream fields(line.substr(line.find(':') + 1));
    std::string text;
    int count = 0;
    for (std::string field; fields >> field; ++count) {
      // The fourth id is that of the file system, which follows the effective one.
      if (line.rfind("Groups:", 0) == 0 || count < 3) text += (text.empty() ? "" : " ") + field;
    }
    if (line.rfind("Uid:", 0) == 0) uid = text;
    if (line.rfind("Gid:", 0) == 0) gid = text;
    if (line.rfind("Groups:", 0) == 0) groups = text;
  }
  return uid + '/' + gid + '/' + groups;
}

/// Does something and prints "ok", or where and why it failed.
void attempt(const std::function<void()>& change) {
  try {
    change();
    std::cout << "ok";
  } catch (const OsError& error) {
    std::cout << error.function() << ": " << error.errnum();
  } catch (const StaticError& error) {
    std::cout << error.function() << ": " << error.what();
  }
  std::cout << " -> " << identity() << '\n';
}

std::string refused(const std::string& function, int code) { return function + ": " + std::to_string(code); }

const std::string notPermanent =
    "changePrivilegeIds: Runtime error occured. Permanent privilege change isn't permanent?!";
const std::string silentlyFailed =
    "changePrivilegeIds: Runtime error occured. Privilege change silently failed?!";

/// Cuts the location line off what() texts in a child's output.
std::string withoutLocations(std::string text) {
  for (std::size_t at; (at = text.find("Exception occured at")) != text.npos;) {
    text.erase(at, text.find("\n\n", at) + 2 - at);
  }
  return text;
}

/// What a child prints that starts as root with the supplementary groups 4 and 27.
std::string asRoot(const std::function<void(Privilege&)>& body) {
  const auto child = test::inChild([&] {
    const gid_t groups[] = {4, 27};
    if (::setgroups(2, groups) != 0) return 1;
    Privilege privilege;
    body(privilege);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  return withoutLocations(child.out);
}

/// What a child prints that starts as nobody without supplementary groups.
std::string asNobody(const std::function<void(Privilege&)>& body) {
  const auto child = test::asNobody([&] {
    Privilege privilege;
    body(privilege);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  return withoutLocations(child.out);
}

class PrivilegeTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != root) GTEST_SKIP() << "only root can change its identity";
  }
};

// --- from root, for a while

TEST_F(PrivilegeTest, RootChangesTheEffectiveUserForAWhileAndComesBack) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              attempt([&] { p.changePrivilege(ids(nobody(), root), false, false); });
              attempt([&] { p.restorePrivilege(); });
            }),
            "ok -> 0 " + std::to_string(nobody()) + " 0/0 0 0/4 27\nok -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, RootDropsItsGroupsForAWhileAndGetsThemBack) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              attempt([&] { p.changePrivilege(ids(nobody(), root), false, true); });
              attempt([&] { p.restorePrivilege(); });
            }),
            "ok -> 0 " + std::to_string(nobody()) + " 0/0 0 0/\nok -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, AChangeForAWhileToAnotherGroupIsRefusedAfterTheUserChanged) {
  for (const bool groups : {false, true}) {
    EXPECT_EQ(asRoot([&](Privilege& p) {
                attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), false, groups); });
                attempt([&] { p.restorePrivilege(); });
              }),
              silentlyFailed + " -> 0 " + std::to_string(nobody()) + " 0/0 0 0/" + (groups ? "" : "4 27") +
                  "\nrestorePrivilege: Usage error occured. No previous privilege information stored -> 0 " +
                  std::to_string(nobody()) + " 0/0 0 0/" + (groups ? "" : "4 27") + '\n');
  }
}

TEST_F(PrivilegeTest, AChangeIsRestoredOnce) {
  const std::string output = asRoot([](Privilege& p) {
    attempt([&] { p.changePrivilege(ids(nobody(), root), false, true); });
    attempt([&] { p.restorePrivilege(); });
    attempt([&] { p.restorePrivilege(); });
  });
  EXPECT_NE(
      output.find("restorePrivilege: Usage error occured. No previous privilege information stored -> 0 0 0"),
      std::string::npos)
      << output;
}

TEST_F(PrivilegeTest, AGroupThatWasDroppedIsNotRestoredByALaterChangeWithoutGroups) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), root), false, true);
              p.restorePrivilege();
              p.setSupplementaryGroups({5});
              p.changePrivilege(ids(nobody(), root), false, false);
              attempt([&] { p.restorePrivilege(); });
            }),
            "ok -> 0 0 0/0 0 0/5\n");
}

// --- from root, for good

TEST_F(PrivilegeTest, RootChangesEveryIdForGood) {
  EXPECT_EQ(
      asRoot([](Privilege& p) { attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, true); }); }),
      "ok -> " + four(nobody()) + '/' + four(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, SupplementaryGroupsSurviveAPermanentChangeThatLeavesThem) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, false); });
            }),
            "ok -> " + four(nobody()) + '/' + four(nogroup()) + "/4 27\n");
}

TEST_F(PrivilegeTest, AfterAPermanentChangeThereIsNothingToRestore) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), nogroup()), true, true);
              attempt([&] { p.restorePrivilege(); });
            }),
            "restorePrivilege: Usage error occured. No previous privilege information stored -> " +
                four(nobody()) + '/' + four(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, APermanentChangeForgetsAnEarlierChangeForAWhile) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), root), false, false);
              if (::seteuid(0) != 0) return;
              p.changePrivilege(ids(nobody(), nogroup()), true, false);
              attempt([&] { p.restorePrivilege(); });
            }),
            "restorePrivilege: Usage error occured. No previous privilege information stored -> " +
                four(nobody()) + '/' + four(nogroup()) + "/4 27\n");
}

TEST_F(PrivilegeTest, AfterAPermanentChangeNoWayBackIsOpen) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), nogroup()), true, true);
              const gid_t rootGroup[] = {root};
              const int results[] = {::seteuid(0),
                                     ::setuid(0),
                                     ::setreuid(0, 0),
                                     ::setreuid(0, -1U),
                                     ::setresuid(0, 0, 0),
                                     ::setresuid(-1U, -1U, 0),
                                     ::setegid(0),
                                     ::setgid(0),
                                     ::setregid(0, 0),
                                     ::setresgid(0, 0, 0),
                                     ::setresgid(-1U, -1U, 0),
                                     ::setgroups(1, rootGroup)};
              for (const int result : results) std::cout << result << ' ';
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity();
            }),
            "-1 -1 -1 -1 -1 -1 -1 -1 -1 -1 -1 -1 0 " + four(nobody()) + '/' + four(nogroup()) + '/');
}

TEST_F(PrivilegeTest, EveryThreadChangesForGood) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              std::string before, after;
              int ready[2], changed[2];
              if (::pipe(ready) != 0 || ::pipe(changed) != 0) throw std::runtime_error("pipe");
              std::thread other([&] {
                char signal = 0;
                before = identity("thread-self");
                if (::write(ready[1], &signal, 1) == 1 && ::read(changed[0], &signal, 1) == 1) {
                  after = identity("thread-self");
                }
              });
              char signal = 0;
              if (::read(ready[0], &signal, 1) == 1) p.changePrivilege(ids(nobody(), nogroup()), true, true);
              if (::write(changed[1], &signal, 1) == 1) other.join();
              std::cout << before << '\n' << after << '\n';
            }),
            "0 0 0/0 0 0/4 27\n" + four(nobody()) + '/' + four(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, ARootWhoIsOnlyTheRealUserCanStillLeaveForGood) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresgid(nogroup(), nogroup(), nogroup()) != 0 || ::setresuid(0, nobody(), 0) != 0)
                return;
              attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
            }),
            "ok -> " + four(nobody()) + '/' + four(nogroup()) + "/4 27\n");
}

TEST_F(PrivilegeTest, ASetUidProgramLeavesForGoodOnceRootIsItsRealUser) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresuid(nobody(), 0, 0) != 0 || ::setuid(0) != 0) return;
              attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, true); });
            }),
            "ok -> " + four(nobody()) + '/' + four(nogroup()) + "/\n");
}

// --- permanent changes that are none

TEST_F(PrivilegeTest, APermanentChangeThatKeepsASavedRootIsRefusedAndRootIsNotInForce) {
  const std::string ofNobody = std::to_string(nobody());
  for (const unsigned effective : {root, nobody()}) {
    EXPECT_EQ(asRoot([&](Privilege& p) {
                if (::setresgid(nogroup(), nogroup(), nogroup()) != 0) return;
                if (::setresuid(nobody(), effective, 0) != 0) return;
                attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
              }),
              notPermanent + " -> " + ofNobody + ' ' + ofNobody + " 0/" + four(nogroup()) + "/4 27\n");
  }
}

TEST_F(PrivilegeTest, APermanentChangeThatKeepsASavedRootGroupIsRefusedAndThatGroupIsNotInForce) {
  const std::string group = std::to_string(nogroup());
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresgid(nogroup(), nogroup(), 0) != 0) return;
              if (::setresuid(nobody(), nobody(), nobody()) != 0) return;
              attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
            }),
            notPermanent + " -> " + four(nobody()) + '/' + group + ' ' + group + " 0/4 27\n");
}

TEST_F(PrivilegeTest, APermanentChangeToAUserWithTheRootGroupIsRefusedWithEveryUserIdGivenUp) {
  EXPECT_EQ(
      asRoot([](Privilege& p) { attempt([&] { p.changePrivilege(ids(nobody(), root), true, true); }); }),
      notPermanent + " -> " + four(nobody()) + "/0 0 0/\n");
}

TEST_F(PrivilegeTest, RootItselfIsNoPermanentChange) {
  EXPECT_EQ(asRoot([](Privilege& p) { attempt([&] { p.changePrivilegeIds(ids(root, root), true); }); }),
            notPermanent + " -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, AnUnsetRecordChangesNothing) {
  for (const bool permanent : {false, true}) {
    EXPECT_EQ(asRoot([&](Privilege& p) { attempt([&] { p.changePrivilegeIds(UserInfo(), permanent); }); }),
              refused("changePrivilegeIds", EINVAL) + " -> 0 0 0/0 0 0/4 27\n");
  }
}

// --- from nobody

TEST_F(PrivilegeTest, NobodyMayBecomeItself) {
  for (const bool permanent : {false, true}) {
    EXPECT_EQ(asNobody([&](Privilege& p) {
                attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), permanent, false); });
              }),
              "ok -> " + four(nobody()) + '/' + four(nogroup()) + "/\n");
  }
}

TEST_F(PrivilegeTest, NobodyRestoresItselfAfterAChangeForAWhile) {
  EXPECT_EQ(asNobody([](Privilege& p) {
              p.changePrivilege(ids(nobody(), nogroup()), false, false);
              attempt([&] { p.restorePrivilege(); });
            }),
            "ok -> " + four(nobody()) + '/' + four(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, NobodyCannotChangeItsGroups) {
  for (const bool permanent : {false, true}) {
    EXPECT_EQ(
        asNobody([&](Privilege& p) {
          attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), permanent, true); });
        }),
        refused("setSupplementaryGroups", EPERM) + " -> " + four(nobody()) + '/' + four(nogroup()) + "/\n");
  }
}

TEST_F(PrivilegeTest, NobodyCannotBecomeAnotherUserOrGroup) {
  for (const UserInfo& other : {ids(root, root), ids(root, nogroup()), ids(1, 1)}) {
    for (const bool permanent : {false, true}) {
      EXPECT_EQ(
          asNobody([&](Privilege& p) { attempt([&] { p.changePrivilege(other, permanent, false); }); }),
          refused("changePrivilegeIds", EPERM) + " -> " + four(nobody()) + '/' + four(nogroup()) + "/\n");
    }
  }
}

TEST_F(PrivilegeTest, NobodyWithAnotherGroupIsRefusedByTheCheckOrTheSystem) {
  const std::string unchanged = " -> " + four(nobody()) + '/' + four(nogroup()) + "/\n";
  EXPECT_EQ(asNobody([](Privilege& p) {
              attempt([&] { p.changePrivilegeIds(ids(nobody(), 1), false); });
              attempt([&] { p.changePrivilegeIds(ids(nobody(), 1), true); });
            }),
            silentlyFailed + unchanged + refused("changePrivilegeIds", EPERM) + unchanged);
}

// --- questions

TEST_F(PrivilegeTest, RealAndEffectiveUserAreToldApart) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresgid(0, nogroup(), 0) != 0 || ::setresuid(0, nobody(), 0) != 0) return;
              std::cout << p.realProcUser() << p.effectiveProcUser();
            }),
            [] {
              std::ostringstream users;
              users << UserInfo(root) << UserInfo(std::string("nobody"));
              return users.str();
            }());
}

TEST_F(PrivilegeTest, AResolvedUserKeepsItsGroup) {
  UserInfo user = ids(nobody(), root);
  Privilege().resolveUser(user);
  EXPECT_EQ(user.name, "nobody");
  EXPECT_EQ(user.gid, root);
  EXPECT_EQ(user.group, "root");
}

TEST_F(PrivilegeTest, WithoutAPasswordEntryTheProcessUserCannotBeTold) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresuid(stranger, stranger, stranger) != 0) return;
              attempt([&] { p.effectiveProcUser(); });
              attempt([&] { p.realProcUser(); });
              attempt([&] { p.changePrivilege(ids(stranger, root), false, false); });
            }),
            [] {
              const std::string line =
                  "resolve: Runtime error occured. No such user -> " + four(stranger) + "/0 0 0/4 27\n";
              return line + line + line;
            }());
}

TEST_F(PrivilegeTest, SupplementaryGroupsAreReadAndWritten) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              for (const unsigned group : p.supplementaryGroups()) std::cout << group << ' ';
              p.setSupplementaryGroups({});
              std::cout << p.supplementaryGroups().size() << ' ' << identity() << ' ';
              p.setSupplementaryGroups({65000, 7, 1});
              std::cout << identity();
            }),
            "4 27 0 0 0 0/0 0 0/ 0 0 0/0 0 0/1 7 65000");
}

TEST_F(PrivilegeTest, ThousandsOfSupplementaryGroupsAreReadAndWritten) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              std::set<unsigned> many;
              for (unsigned group = 100; group < 20100; ++group) many.insert(group);
              p.setSupplementaryGroups(many);
              std::cout << (p.supplementaryGroups() == many);
            }),
            "1");
}

TEST_F(PrivilegeTest, RootPrivilegeIsHadByEffectiveUserOrGroupWithoutAnyChange) {
  EXPECT_EQ(asRoot([](Privilege&) {
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity() << '\n';
              if (::setresuid(nobody(), nobody(), nobody()) != 0) return;
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity() << '\n';
            }),
            "1 0 0 0/0 0 0/4 27\n1 " + four(nobody()) + "/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, RootPrivilegeThatCanBeTakenIsTakenByAsking) {
  const std::string user = std::to_string(nobody()), group = std::to_string(nogroup());
  EXPECT_EQ(asRoot([](Privilege&) {
              if (::setresgid(nogroup(), nogroup(), 0) != 0 || ::setresuid(0, nobody(), 0) != 0) return;
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity();
            }),
            "1 0 0 0/" + group + ' ' + group + " 0/4 27");
  EXPECT_EQ(asRoot([](Privilege&) {
              if (::setresgid(nogroup(), nogroup(), 0) != 0) return;
              if (::setresuid(nobody(), nobody(), nobody()) != 0) return;
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity();
            }),
            "1 " + four(nobody()) + '/' + group + " 0 0/4 27");
}

TEST_F(PrivilegeTest, NobodyHasNoRootPrivilege) {
  EXPECT_EQ(asNobody([](Privilege&) { std::cout << Privilege::haveRootPrivilege() << ' ' << identity(); }),
            "0 " + four(nobody()) + '/' + four(nogroup()) + '/');
}

TEST_F(PrivilegeTest, RestoringWithoutAnEarlierChangeIsAUsageErrorOfItsOwnSite) {
  try {
    Privilege().restorePrivilege();
    ADD_FAILURE() << "restored";
  } catch (const UsageError& error) {
    EXPECT_EQ(error.text(), "No previous privilege information stored");
    EXPECT_STREQ(error.file(), "src/os/posix/proc/Privilege");
    EXPECT_STREQ(error.function(), "restorePrivilege");
  }
}

// --- every system call of a change, failed; what is then in force

struct FailedCall {
  const char* call;
  int nth;           ///< which of the calls of this name fails
  const char* site;  ///< the function that reports it
  const char* inForce;
};

void PrintTo(const FailedCall& failed, std::ostream* stream) {
  *stream << failed.call << " number " << failed.nth;
}

/// Nobody and nogroup are N and G.
std::string filledIn(std::string text) {
  for (std::size_t at; (at = text.find_first_of("NG")) != text.npos;) {
    text.replace(at, 1, std::to_string(text[at] == 'N' ? nobody() : nogroup()));
  }
  return text;
}

class PermanentChangeTest : public testing::TestWithParam<FailedCall> {};

TEST_P(PermanentChangeTest, LeavesInForceWhatItHadDoneWhenACallFails) {
  if (::geteuid() != root) GTEST_SKIP() << "only root can change its identity";
  const FailedCall failed = GetParam();
  EXPECT_EQ(asRoot([&](Privilege& p) {
              faultyIds() = {.call = failed.call, .nth = failed.nth, .code = EAGAIN};
              attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, true); });
            }),
            refused(failed.site, EAGAIN) + " -> " + filledIn(failed.inForce) + '\n');
}

INSTANTIATE_TEST_SUITE_P(
    Calls, PermanentChangeTest,
    testing::Values(FailedCall{"getgroups", 1, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{"getgroups", 2, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{"setgroups", 1, "setSupplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{"setegid", 1, "changePrivilegeIds", "0 0 0/0 0 0/"},
                    FailedCall{"setgid", 1, "changePrivilegeIds", "0 0 0/0 G 0/"},
                    FailedCall{"seteuid", 1, "changePrivilegeIds", "0 0 0/G G G/"},
                    FailedCall{"setuid", 1, "changePrivilegeIds", "0 N 0/G G G/"},
                    FailedCall{"seteuid", 2, "changePrivilegeIds", "0 N 0/G G G/"},
                    FailedCall{"setuid", 2, "changePrivilegeIds", "0 N 0/G G G/"}));

class ChangeForAWhileTest : public testing::TestWithParam<FailedCall> {};

TEST_P(ChangeForAWhileTest, LeavesInForceWhatItHadDoneWhenACallFails) {
  if (::geteuid() != root) GTEST_SKIP() << "only root can change its identity";
  const FailedCall failed = GetParam();
  EXPECT_EQ(asRoot([&](Privilege& p) {
              faultyIds() = {.call = failed.call, .nth = failed.nth, .code = EAGAIN};
              attempt([&] {
                p.changePrivilege(ids(nobody(), root), false, true);
                p.restorePrivilege();
              });
            }),
            refused(failed.site, EAGAIN) + " -> " + filledIn(failed.inForce) + '\n');
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ChangeForAWhileTest,
    testing::Values(FailedCall{"getgroups", 1, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{"getgroups", 2, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{"setgroups", 1, "setSupplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{"seteuid", 1, "changePrivilegeIds", "0 0 0/0 0 0/"},
                    FailedCall{"seteuid", 2, "changePrivilegeIds", "0 N 0/0 0 0/"},
                    FailedCall{"setgroups", 2, "setSupplementaryGroups", "0 0 0/0 0 0/"}));

TEST_F(PrivilegeTest, ARestoreThatFailedAtTheUserCanBeRepeated) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), root), false, true);
              faultyIds() = {.call = "seteuid", .nth = 1, .code = EAGAIN};
              attempt([&] { p.restorePrivilege(); });
              attempt([&] { p.restorePrivilege(); });
            }),
            refused("changePrivilegeIds", EAGAIN) + " -> 0 " + std::to_string(nobody()) +
                " 0/0 0 0/\nok -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, ARestoreThatFailedAtTheGroupsKeepsThemForTheNextChange) {
  const std::string output = asRoot([](Privilege& p) {
    p.changePrivilege(ids(nobody(), root), false, true);
    faultyIds() = {.call = "setgroups", .nth = 1, .code = ENOMEM};
    attempt([&] { p.restorePrivilege(); });
    attempt([&] { p.restorePrivilege(); });
    p.changePrivilege(ids(nobody(), root), false, false);
    attempt([&] { p.restorePrivilege(); });
  });
  EXPECT_EQ(output, refused("setSupplementaryGroups", ENOMEM) +
                        " -> 0 0 0/0 0 0/\nrestorePrivilege: Usage error occured. No previous privilege "
                        "information stored -> 0 0 0/0 0 0/\nok -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, AChangeThatOnlyPretendsIsFoundOut) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              faultyIds() = {.call = "seteuid", .nth = 1, .code = 0};
              attempt([&] { p.changePrivilegeIds(ids(nobody(), root), false); });
            }),
            silentlyFailed + " -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, APermanentChangeThatOnlyPretendsIsFoundOutAndRootIsNotInForce) {
  for (const int nth : {1, 2}) {
    EXPECT_EQ(asRoot([&](Privilege& p) {
                faultyIds() = {.call = "setuid", .nth = nth, .code = 0};
                attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
              }),
              notPermanent + filledIn(" -> 0 N 0/G G G/4 27\n"));
  }
}

}  // namespace
}  // namespace kes::proc
