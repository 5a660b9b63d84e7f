#include "kespal/proc/Env.h"

#include <cerrno>
#include <cstdlib>

#include "kespal/error/OsError.h"
#include "os/System.h"

namespace kes::proc {

namespace {
constexpr const char* noVariables[] = {nullptr};
}

// A process that cleared its environment may have no array at all.
Env::Env() noexcept : variables_(*os::environment() != nullptr ? *os::environment() : noVariables) {}

bool Env::get(const char* name, std::string& value) {
  const char* found = ::getenv(name);
  value = found != nullptr ? found : "";
  return found != nullptr;
}

void Env::set(const char* name, const char* value) {
  if (::setenv(name, value, /*overwrite=*/1) != 0) {
    raiseAt({"src/os/posix/proc/Env", 61, "set"}, OsError(errno));
  }
}

void Env::del(const char* name) { ::unsetenv(name); }

const char* const* Env::end() const noexcept {
  const char* const* last = variables_;
  while (*last != nullptr) ++last;
  return last;
}

}  // namespace kes::proc
