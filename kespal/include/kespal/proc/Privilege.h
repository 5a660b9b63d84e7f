#pragma once

#include <set>

#include "kespal/UserInfo.h"

namespace kes::proc {

/// Whose rights the process has: asks, changes for a while, and changes for good with proof. Identity is
/// process-wide, so one thread at start-up is in control; there is no lock. Errors are OsError with the
/// errno of the call that failed, and those of UserInfo. What a change did before it failed stays in force.
class Privilege {
 public:
  UserInfo realProcUser() const;
  UserInfo effectiveProcUser() const;
  /// Fills in the account of the record's user id; the group id stays.
  void resolveUser(UserInfo& user) const;

  std::set<unsigned> supplementaryGroups() const;
  /// Needs root.
  void setSupplementaryGroups(const std::set<unsigned>& groups);

  /// Becomes `user`: for good, or until restorePrivilege(). With `changeGroups` the supplementary groups are
  /// dropped as well; without it they stay, with all they allow, after a permanent change too. The current
  /// effective user must have an account. Errors of changePrivilegeIds().
  void changePrivilege(const UserInfo& user, bool permanent, bool changeGroups);
  /// Changes the ids and checks them. A change for a while sets the effective user id only, and is refused
  /// afterwards when the user's group id is not the effective one. A permanent change sets every user and
  /// group id and then tries to come back; to be complete it needs a process whose real user is root (a
  /// set-uid program calls setuid(0) first). RuntimeError "Privilege change silently failed?!" or
  /// "Permanent privilege change isn't permanent?!"; what the trial regained is given up before that.
  void changePrivilegeIds(const UserInfo& user, bool permanent) const;
  /// Undoes the last change that was not permanent. UsageError when there is none.
  void restorePrivilege();

  /// Whether the effective user or group is root or can become it; if it can, it then is.
  static bool haveRootPrivilege();

 private:
  bool saved_ = false;
  UserInfo previousUser_;
  bool groupsSaved_ = false;
  std::set<unsigned> previousGroups_;
};

}  // namespace kes::proc
