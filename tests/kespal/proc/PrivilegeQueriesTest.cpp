#include <unistd.h>

#include <iostream>
#include <set>
#include <sstream>

#include "kespal/error/StaticError.h"
#include "kespal/proc/Identities.h"

namespace kes::proc {
namespace {

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
                  "resolve: Runtime error occured. No such user -> " + three(stranger) + "/0 0 0/4 27\n";
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
  const std::string user = std::to_string(nobody());
  EXPECT_EQ(asRoot([](Privilege&) {
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity() << '\n';
              if (::setresuid(nobody(), nobody(), 0) != 0) return;
              std::cout << Privilege::haveRootPrivilege() << ' ' << identity() << '\n';
            }),
            "1 0 0 0/0 0 0/4 27\n1 " + user + ' ' + user + " 0/0 0 0/4 27\n");
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
            "1 " + three(nobody()) + '/' + group + " 0 0/4 27");
}

TEST_F(PrivilegeTest, SupplementaryGroupsThatAreSetLeaveTheEffectiveGroup) {
  EXPECT_EQ(asRoot([](Privilege& privilege) {
              if (::setegid(nogroup()) != 0) return;
              privilege.setSupplementaryGroups({5, 20});
              std::cout << ::getegid() << ' ' << privilege.supplementaryGroups().count(20);
            }),
            std::to_string(nogroup()) + " 1");
}

TEST_F(PrivilegeTest, NobodyHasNoRootPrivilege) {
  EXPECT_EQ(asNobody([](Privilege&) { std::cout << Privilege::haveRootPrivilege() << ' ' << identity(); }),
            "0 " + three(nobody()) + '/' + three(nogroup()) + '/');
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

}  // namespace
}  // namespace kes::proc
