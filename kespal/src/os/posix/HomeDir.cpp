#include "os/HomeDir.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

#include "kespal/proc/Env.h"
#include "os/posix/Lookup.h"

namespace kes::os {

std::string databaseHome() {
  std::vector<char> room(1024);
  passwd entry{};
  passwd* found = nullptr;
  lookUp(room, [&](char* buffer, std::size_t size) {
    return ::getpwuid_r(::getuid(), &entry, buffer, size, &found);
  });
  return found != nullptr && found->pw_dir != nullptr ? found->pw_dir : "";
}

std::string homeDir() {
  std::string home;
  if (proc::Env::get("HOME", home) && home.starts_with('/')) return home;
  return databaseHome();
}

}  // namespace kes::os
