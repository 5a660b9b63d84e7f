#include "kespal/UserInfo.h"

#include <pwd.h>
#include <unistd.h>

#include <ostream>

#include "Lasting.h"
#include "kespal/GroupInfo.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "os/posix/Lookup.h"
#include "sys/NoCancel.h"

namespace kes {

namespace {
/// Not every source of accounts fills in all texts.
const char* textOf(const char* field) { return field != nullptr ? field : ""; }

constinit Lasting<std::string> g_loginName;
[[maybe_unused]] const bool g_madeAtTheStart = g_loginName.make();
}  // namespace

constinit std::string& UserInfo::m_login_name = g_loginName.value;

UserInfo::UserInfo(unsigned id) : uid(id) { resolve(/*byName=*/false, /*withGroup=*/true); }

UserInfo::UserInfo(const std::string& login) : name(login) { resolve(/*byName=*/true, /*withGroup=*/true); }

void UserInfo::setLoginName() {
  const sys::NoCancel untilAnswered;
  char buffer[32];
  g_loginName.make();
  m_login_name = ::getlogin_r(buffer, sizeof buffer) == 0 ? buffer : "";
}

void UserInfo::resolve(bool byName, bool withGroup) {
  passwd entry;
  const sys::NoCancel untilAnswered;  // the C library would leave its files open, and its lock taken
  passwd* found = nullptr;
  char buffer[2048];
  int code = 0;
  if (!byName) {
    code = ::getpwuid_r(uid, &entry, buffer, sizeof buffer, &found);
  } else if (os::canBeName(name)) {
    code = ::getpwnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found);
  }
  if (code != 0) raiseAt(KES_HERE, OsError(code));
  if (found == nullptr) raiseAt(KES_HERE, RuntimeError("No such user"));

  if (byName) {
    uid = entry.pw_uid;
  } else {
    name = textOf(entry.pw_name);
  }
  if (withGroup) gid = entry.pw_gid;
  home = textOf(entry.pw_dir);
  shell = textOf(entry.pw_shell);
  group = GroupInfo(gid).name();
}

std::ostream& operator<<(std::ostream& stream, const UserInfo& user) {
  return stream << "User: " << user.name << " (" << std::to_string(user.uid) << ")\nGroup: " << user.group
                << " (" << std::to_string(user.gid) << ")\nHome: " << user.home << "\nShell: " << user.shell
                << '\n';
}

}  // namespace kes
