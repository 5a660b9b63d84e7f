#include "kespal/GroupInfo.h"

#include <grp.h>

#include <ostream>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "os/posix/Lookup.h"

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
  std::vector<char> room(128);
  const int code = os::lookUp(room, [&](char* buffer, std::size_t size) {
    if (!os::canBeName(name_)) return 0;
    return name_.empty() ? ::getgrgid_r(gid_, &entry, buffer, size, &found)
                         : ::getgrnam_r(name_.c_str(), &entry, buffer, size, &found);
  });
  checkCode(KES_HERE, code);
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
