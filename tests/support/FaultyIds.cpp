#include "support/FaultyIds.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>

// The linker sends every call of setuid to __wrap_setuid, and so on (see CMakeLists.txt).
extern "C" {
int __real_setuid(uid_t);
int __real_seteuid(uid_t);
int __real_setgid(gid_t);
int __real_setegid(gid_t);
int __real_setgroups(size_t, const gid_t*);
int __real_getgroups(int, gid_t*);
}

namespace kes::test {

IdFault& faultyIds() {
  static IdFault fault;
  return fault;
}

namespace {

template <typename Real, typename... Args>
int call(const char* name, Real real, Args... args) {
  IdFault& fault = faultyIds();
  if (fault.call != name || --fault.nth != 0) return real(args...);
  if (fault.code == 0) return 0;
  errno = fault.code;
  return -1;
}

}  // namespace
}  // namespace kes::test

using kes::test::call;

extern "C" {
int __wrap_setuid(uid_t id) { return call("setuid", __real_setuid, id); }
int __wrap_seteuid(uid_t id) { return call("seteuid", __real_seteuid, id); }
int __wrap_setgid(gid_t id) { return call("setgid", __real_setgid, id); }
int __wrap_setegid(gid_t id) { return call("setegid", __real_setegid, id); }
int __wrap_setgroups(size_t count, const gid_t* ids) {
  return call("setgroups", __real_setgroups, count, ids);
}
int __wrap_getgroups(int count, gid_t* ids) { return call("getgroups", __real_getgroups, count, ids); }
}
