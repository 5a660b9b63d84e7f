#pragma once  // since 0.1

#include <set>

#include "kespal/Export.h"
#include "kespal/UserInfo.h"

KES_EXPORT_BEGIN

namespace kes::proc {

/// Whose rights the process has: asks, changes for a while, and changes for good with proof. Identity is
/// process-wide, so one thread at start-up is in control; there is no lock. Errors are OsError with the
/// errno of the call that failed, and those of UserInfo. What a change did before it failed stays in force.
class Privilege {
 public:
  /// The account of the real, or effective, user id, with the group of that kind. Errors of
  /// UserInfo::resolve(): a user without an account is one, as in many containers.
  UserInfo realProcUser() const;
  UserInfo effectiveProcUser() const;  ///< see realProcUser()
  /// Fills in the account of the record's user id; the group id stays.
  void resolveUser(UserInfo& user) const;

  /// OsError (EINVAL when another thread adds a group meanwhile).
  std::set<unsigned> supplementaryGroups() const;
  /// OsError (EPERM) for who is not root; EINVAL for more groups than the system has room for.
  void setSupplementaryGroups(const std::set<unsigned>& groups);

  /// Becomes `user`: for good, or until restorePrivilege(). With `changeGroups` the supplementary groups are
  /// dropped as well; without it they stay, with all they allow, after a permanent change too. The current
  /// effective user must have an account. Errors of changePrivilegeIds().
  void changePrivilege(const UserInfo& user, bool permanent, bool changeGroups);
  /// Changes the ids and checks them. A change for a while sets the effective user id only, and is refused
  /// afterwards when the user's group id is not the effective one; the user id stays changed then. A
  /// permanent change sets every user and group id, tries to come back, and compares the real, effective and
  /// saved ids with the wanted ones; to be complete it needs a process whose real user is root (a set-uid
  /// program calls setuid(0) first), or one whose ids are the wanted ones already. OsError (EPERM, EAGAIN,
  /// EINVAL); RuntimeError "Privilege change silently failed?!" or "Permanent privilege change isn't
  /// permanent?!"; what the trial regained is given up before that.
  void changePrivilegeIds(const UserInfo& user, bool permanent) const;
  /// Undoes the last change that was not permanent. UsageError when there is none; errors of
  /// changePrivilegeIds(), after which it can be repeated, and of setSupplementaryGroups(), after which the
  /// groups are not restored any more.
  void restorePrivilege();

  /// Whether the effective user or group is root or can become it; if it can, it then is. Raises nothing.
  static bool haveRootPrivilege();

 private:
  bool saved_ = false;
  UserInfo previousUser_;
  bool groupsSaved_ = false;
  std::set<unsigned> previousGroups_;
};

}  // namespace kes::proc

KES_EXPORT_END
