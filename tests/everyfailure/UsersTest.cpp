#include <grp.h>
#include <unistd.h>

#include <optional>

#include "kespal/GroupInfo.h"
#include "kespal/UserInfo.h"
#include "kespal/proc/Privilege.h"
#include "support/EveryFailure.h"

namespace kes::proc {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

const std::vector<test::Raises> lookupErrors = {raises("kes::OsError"),
                                                raises("kes::RuntimeError", {}, "resolve"),
                                                raises("kes::RuntimeError", {}, "retrieve")};

UserInfo rootRecord() {
  UserInfo user;
  user.uid = 0;
  user.gid = 0;
  return user;
}

TEST(EveryFailureOfUsers, AUserIsLookedUp) {
  expectSurvival({.operations = {"kes::UserInfo::UserInfo", "kes::UserInfo::resolve"},
                  .raises = lookupErrors,
                  .play = [](Stage& stage) {
                    std::optional<UserInfo> user;
                    stage.act([&] { user.emplace(0U); });
                    stage.check(!stage.succeeded() || user->name == "root", "it is root");
                    stage.act([&] { user.emplace(std::string("root")); });
                    stage.check(!stage.succeeded() || (user->uid == 0 && user->group == "root"),
                                "it is root's");
                    UserInfo record = rootRecord();
                    stage.act([&] { record.resolve(/*byName=*/false, /*withGroup=*/true); });
                    record.resolve(/*byName=*/false, /*withGroup=*/true);
                    stage.check(record.name == "root", "it can be asked again");
                  }});
}

TEST(EveryFailureOfUsers, TheLoginNameIsTaken) {
  expectSurvival({.operations = {"kes::UserInfo::setLoginName", "kes::UserInfo::init"},
                  .play = [](Stage& stage) { stage.act([] { UserInfo::init(); }); }});
}

TEST(EveryFailureOfUsers, AGroupIsLookedUp) {
  expectSurvival({.operations = {"kes::GroupInfo::GroupInfo", "kes::GroupInfo::retrieve",
                                 "kes::GroupInfo::setID", "kes::GroupInfo::setName"},
                  .raises = lookupErrors,
                  .play = [](Stage& stage) {
                    std::optional<GroupInfo> group;
                    stage.act([&] { group.emplace(0U); });
                    stage.act([&] { group.emplace(std::string("root")); });
                    if (!group) group.emplace(0U);
                    stage.act([&] { group->setID(1); });
                    stage.act([&] { group->setName("root"); });
                    group->setName("root");
                    stage.check(group->gid() == 0, "it can be asked again");
                  }});
}

TEST(EveryFailureOfUsers, AProcessTellsWhoseItIs) {
  expectSurvival(
      {.operations = {"kes::proc::Privilege::realProcUser", "kes::proc::Privilege::effectiveProcUser",
                      "kes::proc::Privilege::resolveUser", "kes::proc::Privilege::supplementaryGroups"},
       .raises = lookupErrors,
       .play = [](Stage& stage) {
         const Privilege privilege;
         UserInfo user = rootRecord();
         stage.act([&] { privilege.realProcUser(); });
         stage.act([&] { privilege.effectiveProcUser(); });
         stage.act([&] { privilege.resolveUser(user); });
         stage.act([&] { privilege.supplementaryGroups(); });
         stage.act([] { Privilege::haveRootPrivilege(); });
       }});
}

std::set<unsigned> groupsNow() { return Privilege().supplementaryGroups(); }

void beRoot() {
  const gid_t groups[] = {4, 27};
  if (::setgroups(2, groups) != 0) throw std::runtime_error("not root");
}

TEST(EveryFailureOfUsers, AProcessChangesItsUserForAWhile) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can change its identity";
  expectSurvival(
      {.operations = {"kes::proc::Privilege::changePrivilege", "kes::proc::Privilege::changePrivilegeIds",
                      "kes::proc::Privilege::restorePrivilege",
                      "kes::proc::Privilege::setSupplementaryGroups",
                      "kes::proc::Privilege::haveRootPrivilege"},
       .raises = {raises("kes::OsError"), raises("kes::RuntimeError")},
       .play = [](Stage& stage) {
         beRoot();
         const std::set<unsigned> before = groupsNow();
         Privilege privilege;
         UserInfo nobody = rootRecord();
         nobody.uid = 65534;
         const bool changed =
             stage.act([&] { privilege.changePrivilege(nobody, /*permanent=*/false, true); });
         stage.check(changed == (::geteuid() == 65534), "the user is what was said");
         if (changed && !stage.act([&] { privilege.restorePrivilege(); }) && ::geteuid() != 0) {
           privilege.restorePrivilege();
         }
         stage.check(::geteuid() == 0, "it is root again");
         const bool refused = stage.isRefused(Call::setgroups) || stage.isRefused(Call::seteuid);
         stage.check(refused || groupsNow() == before, "the groups are those from before");
       }});
}

TEST(EveryFailureOfUsers, AProcessChangesItsUserForGood) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can change its identity";
  expectSurvival({.operations = {"kes::proc::Privilege::changePrivilege"},
                  .raises = {raises("kes::OsError", {EPERM}), raises("kes::RuntimeError")},
                  .play = [](Stage& stage) {
                    beRoot();
                    UserInfo nobody = rootRecord();
                    nobody.uid = nobody.gid = 65534;
                    Privilege privilege;
                    const bool changed =
                        stage.act([&] { privilege.changePrivilege(nobody, /*permanent=*/true, true); });
                    uid_t real = 0, effective = 0, saved = 0;
                    ::getresuid(&real, &effective, &saved);
                    const bool isNobody = real == 65534 && effective == 65534 && saved == 65534;
                    stage.check(!changed || isNobody, "nothing of root is left if that was said");
                    stage.check(!changed || groupsNow().empty(), "nor a group");
                  }});
}

}  // namespace
}  // namespace kes::proc
