#pragma once  // since 0.1

#include <iosfwd>
#include <set>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// A group, as the group database has it, with the login names of its members. A plain value; any thread
/// may look up. Every lookup raises OsError when the database fails and RuntimeError "no matching group"
/// when it has no such group; the key stays then, without members.
class GroupInfo {
 public:
  static constexpr unsigned Unknown = 0xFFFFFFFF;  ///< the id of no group

  /// Looks up the group with this id, or this name.
  explicit GroupInfo(unsigned gid);
  explicit GroupInfo(const std::string& name);

  /// Becomes the group with this id.
  void setID(unsigned gid);
  /// Becomes the group with this name.
  void setName(const std::string& name);
  /// Looks the group up again: by its name, or by its id when the name is empty.
  void retrieve();

  const std::string& name() const noexcept { return name_; }  ///< empty until found, if looked up by id
  unsigned gid() const noexcept { return gid_; }              ///< Unknown until found
  /// Those the group lists; whose primary group it is need not be among them.
  const std::set<std::string>& members() const noexcept { return members_; }

 private:
  std::string name_;
  unsigned gid_ = Unknown;
  std::set<std::string> members_;
};

/// "Group: name (gid)" and, if there are members, "\nMembers:" and "\n- " and the name of each.
std::ostream& operator<<(std::ostream& stream, const GroupInfo& group);

}  // namespace kes

KES_EXPORT_END
