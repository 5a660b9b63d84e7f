#include "kespal/proc/Privilege.h"

#include <grp.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>
#include <thread>

#include "kespal/proc/Identities.h"

namespace kes::proc {
namespace {

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
      "ok -> " + three(nobody()) + '/' + three(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, SupplementaryGroupsSurviveAPermanentChangeThatLeavesThem) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, false); });
            }),
            "ok -> " + three(nobody()) + '/' + three(nogroup()) + "/4 27\n");
}

TEST_F(PrivilegeTest, AfterAPermanentChangeThereIsNothingToRestore) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), nogroup()), true, true);
              attempt([&] { p.restorePrivilege(); });
            }),
            "restorePrivilege: Usage error occured. No previous privilege information stored -> " +
                three(nobody()) + '/' + three(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, APermanentChangeForgetsAnEarlierChangeForAWhile) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), root), false, false);
              if (::seteuid(0) != 0) return;
              p.changePrivilege(ids(nobody(), nogroup()), true, false);
              attempt([&] { p.restorePrivilege(); });
            }),
            "restorePrivilege: Usage error occured. No previous privilege information stored -> " +
                three(nobody()) + '/' + three(nogroup()) + "/4 27\n");
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
            "-1 -1 -1 -1 -1 -1 -1 -1 -1 -1 -1 -1 0 " + three(nobody()) + '/' + three(nogroup()) + '/');
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
            "0 0 0/0 0 0/4 27\n" + three(nobody()) + '/' + three(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, ARootWhoIsOnlyTheRealUserCanStillLeaveForGood) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresgid(nogroup(), nogroup(), nogroup()) != 0 || ::setresuid(0, nobody(), 0) != 0)
                return;
              attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
            }),
            "ok -> " + three(nobody()) + '/' + three(nogroup()) + "/4 27\n");
}

TEST_F(PrivilegeTest, ASetUidProgramLeavesForGoodOnceRootIsItsRealUser) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresuid(nobody(), 0, 0) != 0 || ::setuid(0) != 0) return;
              attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, true); });
            }),
            "ok -> " + three(nobody()) + '/' + three(nogroup()) + "/\n");
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
              notPermanent + " -> " + ofNobody + ' ' + ofNobody + " 0/" + three(nogroup()) + "/4 27\n");
  }
}

TEST_F(PrivilegeTest, APermanentChangeThatKeepsASavedRootGroupIsRefusedAndThatGroupIsNotInForce) {
  const std::string group = std::to_string(nogroup());
  EXPECT_EQ(asRoot([](Privilege& p) {
              if (::setresgid(nogroup(), nogroup(), 0) != 0) return;
              if (::setresuid(nobody(), nobody(), nobody()) != 0) return;
              attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
            }),
            notPermanent + " -> " + three(nobody()) + '/' + group + ' ' + group + " 0/4 27\n");
}

TEST_F(PrivilegeTest, APermanentChangeToAUserWithTheRootGroupIsRefusedWithEveryUserIdGivenUp) {
  EXPECT_EQ(
      asRoot([](Privilege& p) { attempt([&] { p.changePrivilege(ids(nobody(), root), true, true); }); }),
      notPermanent + " -> " + three(nobody()) + "/0 0 0/\n");
}

TEST_F(PrivilegeTest, APermanentChangeThatLeavesARealOrSavedIdOfAnotherUserIsRefused) {
  const std::string user = std::to_string(nobody());
  struct {
    unsigned real, saved;
  } const starts[] = {{stranger, nobody()}, {nobody(), stranger}};
  for (const auto& start : starts) {
    EXPECT_EQ(asRoot([&](Privilege& p) {
                if (::setresgid(nogroup(), nogroup(), nogroup()) != 0) return;
                if (::setresuid(start.real, nobody(), start.saved) != 0) return;
                attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
              }),
              notPermanent + " -> " + std::to_string(start.real) + ' ' + user + ' ' +
                  std::to_string(start.saved) + '/' + three(nogroup()) + "/4 27\n");
  }
}

TEST_F(PrivilegeTest, APermanentChangeThatLeavesARealOrSavedIdOfAnotherGroupIsRefused) {
  struct {
    unsigned real, saved;
  } const starts[] = {{stranger, nogroup()}, {nogroup(), stranger}};
  for (const auto& start : starts) {
    EXPECT_EQ(asRoot([&](Privilege& p) {
                if (::setresgid(start.real, nogroup(), start.saved) != 0) return;
                if (::setresuid(nobody(), nobody(), nobody()) != 0) return;
                attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
              }),
              notPermanent + " -> " + three(nobody()) + '/' + std::to_string(start.real) + ' ' +
                  std::to_string(nogroup()) + ' ' + std::to_string(start.saved) + "/4 27\n");
  }
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
              "ok -> " + three(nobody()) + '/' + three(nogroup()) + "/\n");
  }
}

TEST_F(PrivilegeTest, NobodyRestoresItselfAfterAChangeForAWhile) {
  EXPECT_EQ(asNobody([](Privilege& p) {
              p.changePrivilege(ids(nobody(), nogroup()), false, false);
              attempt([&] { p.restorePrivilege(); });
            }),
            "ok -> " + three(nobody()) + '/' + three(nogroup()) + "/\n");
}

TEST_F(PrivilegeTest, NobodyCannotChangeItsGroups) {
  for (const bool permanent : {false, true}) {
    EXPECT_EQ(
        asNobody([&](Privilege& p) {
          attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), permanent, true); });
        }),
        refused("setSupplementaryGroups", EPERM) + " -> " + three(nobody()) + '/' + three(nogroup()) + "/\n");
  }
}

TEST_F(PrivilegeTest, NobodyCannotBecomeAnotherUserOrGroup) {
  for (const UserInfo& other : {ids(root, root), ids(root, nogroup()), ids(1, 1)}) {
    for (const bool permanent : {false, true}) {
      EXPECT_EQ(
          asNobody([&](Privilege& p) { attempt([&] { p.changePrivilege(other, permanent, false); }); }),
          refused("changePrivilegeIds", EPERM) + " -> " + three(nobody()) + '/' + three(nogroup()) + "/\n");
    }
  }
}

TEST_F(PrivilegeTest, NobodyWithAnotherGroupIsRefusedByTheCheckOrTheSystem) {
  const std::string unchanged = " -> " + three(nobody()) + '/' + three(nogroup()) + "/\n";
  EXPECT_EQ(asNobody([](Privilege& p) {
              attempt([&] { p.changePrivilegeIds(ids(nobody(), 1), false); });
              attempt([&] { p.changePrivilegeIds(ids(nobody(), 1), true); });
            }),
            silentlyFailed + unchanged + refused("changePrivilegeIds", EPERM) + unchanged);
}

}  // namespace
}  // namespace kes::proc
