#include <grp.h>
#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>

#include "Calls.h"

namespace loader {

namespace {

struct MacUser {
  char *name, *password;
  uid_t user;
  gid_t group;
  std::int64_t passwordChanged;
  char *accessClass, *info, *home, *shell;
  std::int64_t expires;
};
static_assert(sizeof(MacUser) == 72);

char noClass[] = "";

MacUser* give(const passwd& host, MacUser* mac) {
  *mac = {host.pw_name, host.pw_passwd, host.pw_uid, host.pw_gid,   0,
          noClass,      host.pw_gecos,  host.pw_dir, host.pw_shell, 0};
  return mac;
}

int userByName(const char* name, MacUser* mac, char* buffer, std::size_t size, MacUser** found) {
  passwd host{};
  passwd* entry = nullptr;
  const int result = ::getpwnam_r(name, &host, buffer, size, &entry);
  *found = entry != nullptr ? give(host, mac) : nullptr;
  return macError(result);
}
int userById(uid_t id, MacUser* mac, char* buffer, std::size_t size, MacUser** found) {
  passwd host{};
  passwd* entry = nullptr;
  const int result = ::getpwuid_r(id, &host, buffer, size, &entry);
  *found = entry != nullptr ? give(host, mac) : nullptr;
  return macError(result);
}
MacUser* userNamed(const char* name) {
  static MacUser mac;
  const passwd* const host = ::getpwnam(name);
  return host != nullptr ? give(*host, &mac) : nullptr;
}
MacUser* userNumbered(uid_t id) {
  static MacUser mac;
  const passwd* const host = ::getpwuid(id);
  return host != nullptr ? give(*host, &mac) : nullptr;
}

// The records of groups are the same, the count of a list is an int. The first of a list is the effective
// group id over there, which is no member of it here.
int setGroups(int count, const gid_t* groups) {
  if (count == 0) return ::setgroups(0, nullptr);
  const int result = ::setgroups(static_cast<std::size_t>(count) - 1, groups + 1);
  return result == 0 ? ::setegid(groups[0]) : result;
}
int getGroups(int size, gid_t* groups) {
  const int others =
      ::getgroups(size > 0 ? size - 1 : 0, groups != nullptr && size > 0 ? groups + 1 : groups);
  if (others == -1) return -1;
  if (size > 0) groups[0] = ::getegid();
  return others + 1;
}

const Call calls[] = {{"getpwnam_r", userByName}, {"getpwuid_r", userById}, {"getpwnam", userNamed},
                      {"getpwuid", userNumbered}, {"setgroups", setGroups}, {"getgroups", getGroups},
                      {"setreuid", ::setreuid},   {"setregid", ::setregid}};

}  // namespace

std::span<const Call> accountCalls() { return calls; }

}  // namespace loader
