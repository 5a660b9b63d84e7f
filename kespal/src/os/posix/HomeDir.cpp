#include "os/HomeDir.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "kespal/proc/Env.h"

namespace kes::os {

std::string databaseHome() {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(2 * buffer.size());
  }
  return found != nullptr && found->pw_dir != nullptr ? found->pw_dir : "";
}

std::string homeDir() {
  std::string home;
  if (proc::Env::get("HOME", home) && home.starts_with('/')) return home;
  return databaseHome();
}

}  // namespace kes::os
