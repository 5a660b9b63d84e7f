#include "kespal/proc/Env.h"

#include <cerrno>
#include <cstdlib>

#include "kespal/error/OsError.h"
#include "os/NoFork.h"
#include "os/System.h"

namespace kes::proc {

namespace {
constexpr const char* noVariables[] = {nullptr};
}

Env::Env() noexcept : place_(os::environment()) {}

bool Env::get(const char* name, std::string& value) {
  const char* found = name != nullptr ? ::getenv(name) : nullptr;
  value = found != nullptr ? found : "";
  return found != nullptr;
}

void Env::set(const char* name, const char* value) {
  constexpr Site site{"src/os/posix/proc/Env", 61, "set"};
  if (value == nullptr) raiseAt(site, OsError(EINVAL));
  const os::NoFork untilSet;
  check(site, ::setenv(name, value, /*overwrite=*/1));
}

void Env::del(const char* name) {
  if (name == nullptr) return;
  const os::NoFork untilDeleted;
  ::unsetenv(name);
}

// A process that cleared its environment may have no array at all.
const char* const* Env::begin() const noexcept { return *place_ != nullptr ? *place_ : noVariables; }

const char* const* Env::end() const noexcept {
  const char* const* last = begin();
  while (*last != nullptr) ++last;
  return last;
}

}  // namespace kes::proc
