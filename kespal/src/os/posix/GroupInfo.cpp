#include "kespal/GroupInfo.h"

#include <grp.h>

#include <cerrno>
#include <ostream>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"

namespace kes {

GroupInfo::GroupInfo(unsigned gid) : gid_(gid) { retrieve(); }

GroupInfo::GroupInfo(const std::string& name) : name_(name) { retrieve(); }

void GroupInfo::setID(unsigned gid) {
  name_.clear();
  gid_ = gid;
  retrieve();
}

void GroupInfo::setName(const std::string& name) {
  gid_ = Unknown;
  name_ = name;
  retrieve();
}

void GroupInfo::retrieve() {
  members_.clear();
  group entry;
  group* found = nullptr;
  std::vector<char> buffer(128);
  int code = 0;
  do {
    code = name_.empty() ? ::getgrgid_r(gid_, &entry, buffer.data(), buffer.size(), &found)
                         : ::getgrnam_r(name_.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (code == ERANGE) buffer.resize(buffer.size() * 2);
  } while (code == EINTR || code == ERANGE);
  if (code != 0) raiseAt(KES_HERE, OsError(code));
  if (found == nullptr) raiseAt(KES_HERE, RuntimeError("no matching group"));

  gid_ = entry.gr_gid;
  name_ = entry.gr_name;
  for (char** member = entry.gr_mem; member != nullptr && *member != nullptr; ++member)
    members_.insert(*member);
}

std::ostream& operator<<(std::ostream& stream, const GroupInfo& group) {
  stream << "Group: " << group.name() << " (" << std::to_string(group.gid()) << ')';
  if (!group.members().empty()) stream << "\nMembers:";
  for (const std::string& member : group.members()) stream << "\n- " << member;
  return stream;
}

}  // namespace kes
