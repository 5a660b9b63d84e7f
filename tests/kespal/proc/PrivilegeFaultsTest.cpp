// Every system call of a change of privileges, failed; what is then in force.
#include <unistd.h>

#include <cerrno>

#include "kespal/proc/Identities.h"
#include "support/Calls.h"

namespace kes::proc {
namespace {

using test::Call;
using test::once;
using test::Refuse;

struct FailedCall {
  Call call;
  int nth;           ///< which of the calls of this name fails
  const char* site;  ///< the function that reports it
  const char* inForce;
};

void PrintTo(const FailedCall& failed, std::ostream* stream) {
  *stream << test::infoOf(failed.call).name << " number " << failed.nth;
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
              const Refuse failing(failed.call, EAGAIN, test::nth(failed.nth));
              attempt([&] { p.changePrivilege(ids(nobody(), nogroup()), true, true); });
            }),
            refused(failed.site, EAGAIN) + " -> " + filledIn(failed.inForce) + '\n');
}

INSTANTIATE_TEST_SUITE_P(
    Calls, PermanentChangeTest,
    testing::Values(FailedCall{Call::getgroups, 1, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{Call::getgroups, 2, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{Call::setgroups, 1, "setSupplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{Call::setegid, 1, "changePrivilegeIds", "0 0 0/0 0 0/"},
                    FailedCall{Call::setgid, 1, "changePrivilegeIds", "0 0 0/0 G 0/"},
                    FailedCall{Call::seteuid, 1, "changePrivilegeIds", "0 0 0/G G G/"},
                    FailedCall{Call::setuid, 1, "changePrivilegeIds", "0 N 0/G G G/"},
                    FailedCall{Call::seteuid, 2, "changePrivilegeIds", "0 N 0/G G G/"},
                    FailedCall{Call::setuid, 2, "changePrivilegeIds", "0 N 0/G G G/"}));

class ChangeForAWhileTest : public testing::TestWithParam<FailedCall> {};

TEST_P(ChangeForAWhileTest, LeavesInForceWhatItHadDoneWhenACallFails) {
  if (::geteuid() != root) GTEST_SKIP() << "only root can change its identity";
  const FailedCall failed = GetParam();
  EXPECT_EQ(asRoot([&](Privilege& p) {
              const Refuse failing(failed.call, EAGAIN, test::nth(failed.nth));
              attempt([&] {
                p.changePrivilege(ids(nobody(), root), false, true);
                p.restorePrivilege();
              });
            }),
            refused(failed.site, EAGAIN) + " -> " + filledIn(failed.inForce) + '\n');
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ChangeForAWhileTest,
    testing::Values(FailedCall{Call::getgroups, 1, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{Call::getgroups, 2, "supplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{Call::setgroups, 1, "setSupplementaryGroups", "0 0 0/0 0 0/4 27"},
                    FailedCall{Call::seteuid, 1, "changePrivilegeIds", "0 0 0/0 0 0/"},
                    FailedCall{Call::seteuid, 2, "changePrivilegeIds", "0 N 0/0 0 0/"},
                    FailedCall{Call::setgroups, 2, "setSupplementaryGroups", "0 0 0/0 0 0/"}));

TEST_F(PrivilegeTest, ARestoreThatFailedAtTheUserCanBeRepeated) {
  EXPECT_EQ(asRoot([](Privilege& p) {
              p.changePrivilege(ids(nobody(), root), false, true);
              const Refuse failing(Call::seteuid, EAGAIN, once);
              attempt([&] { p.restorePrivilege(); });
              attempt([&] { p.restorePrivilege(); });
            }),
            refused("changePrivilegeIds", EAGAIN) + " -> 0 " + std::to_string(nobody()) +
                " 0/0 0 0/\nok -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, ARestoreThatFailedAtTheGroupsKeepsThemForTheNextChange) {
  const std::string output = asRoot([](Privilege& p) {
    p.changePrivilege(ids(nobody(), root), false, true);
    const Refuse failing(Call::setgroups, ENOMEM, once);
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
              const Refuse failing(Call::seteuid, 0, once);
              attempt([&] { p.changePrivilegeIds(ids(nobody(), root), false); });
            }),
            silentlyFailed + " -> 0 0 0/0 0 0/4 27\n");
}

TEST_F(PrivilegeTest, APermanentChangeThatOnlyPretendsIsFoundOutAndRootIsNotInForce) {
  for (const int number : {1, 2}) {
    EXPECT_EQ(asRoot([&](Privilege& p) {
                const Refuse failing(Call::setuid, 0, test::nth(number));
                attempt([&] { p.changePrivilegeIds(ids(nobody(), nogroup()), true); });
              }),
              notPermanent + filledIn(" -> 0 N 0/G G G/4 27\n"));
  }
}

}  // namespace
}  // namespace kes::proc
