// Part of a test program: setgroups() as macOS has it. The first of its list becomes the effective group, and
// what is left are the others.
#include <dlfcn.h>
#include <grp.h>
#include <unistd.h>

#include <cstddef>

namespace {

/// A function of the C library itself: what a test comes between is the program's calls, not the system's
/// own.
template <typename Function>
Function* ofTheSystem(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int setgroups(std::size_t count, const gid_t* groups) noexcept {
  const auto set = ofTheSystem<int(std::size_t, const gid_t*)>("setgroups");
  constexpr gid_t ofNoList = 0;
  const gid_t effective = count == 0 ? ofNoList : groups[0];
  const int result = count == 0 ? set(0, nullptr) : set(count - 1, groups + 1);
  return result == 0 ? ofTheSystem<int(gid_t)>("setegid")(effective) : result;
}
