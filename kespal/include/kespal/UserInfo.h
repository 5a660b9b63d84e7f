#pragma once  // since 0.1

#include <iosfwd>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// A user account, as the password database has it. A plain record; an id with all bits set is unknown.
/// Any thread may look up; m_login_name is written at start-up.
struct UserInfo {
  unsigned uid = 0xFFFFFFFF;  ///< user id
  unsigned gid = 0xFFFFFFFF;  ///< of the primary group
  std::string name;           ///< login name
  std::string group;          ///< name of the primary group
  std::string home;           ///< home directory
  std::string shell;          ///< login shell

  UserInfo() = default;
  /// The account of a user id, and its primary group. Errors of resolve().
  explicit UserInfo(unsigned uid);
  /// The account of a login name, and its primary group. Errors of resolve().
  explicit UserInfo(const std::string& name);

  /// Fills the record from the account with this name, or else with this user id. The group id stays
  /// unless `withGroup`; the group's name is that of the id in either case. The texts of an account may take
  /// 2,048 bytes together: OsError (ERANGE) for one that needs more, and what else the database says (EIO,
  /// EMFILE, EINTR, ...); RuntimeError "No such user"; errors of GroupInfo. Looks into files or asks servers,
  /// so never between fork and exec.
  void resolve(bool byName, bool withGroup);

  /// The login name of the controlling terminal's user; empty when unknown.
  static std::string& m_login_name;
  static void setLoginName();  ///< what init() does; std::bad_alloc
  /// Finds out who is logged in. Called once, before threads are started. std::bad_alloc.
  static void init() { setLoginName(); }
};

/// Four lines: "User: name (uid)", "Group: group (gid)", "Home: home", "Shell: shell".
std::ostream& operator<<(std::ostream& stream, const UserInfo& user);

}  // namespace kes

KES_EXPORT_END
