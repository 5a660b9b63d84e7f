#include "os/HomeDir.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "kespal/proc/Env.h"
#include "sys/NoCancel.h"

namespace kes::os {

std::string databaseHome() {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  constexpr std::size_t most = std::size_t{1} << 20;  // no entry is so long: who asks for more never ends
  const sys::NoCancel noCancel;                       // the C library would leave its files open
  for (;;) {
    const int errnum = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (errnum == ERANGE && buffer.size() < most) {
      buffer.resize(2 * buffer.size());
    } else if (errnum != EINTR) {
      break;
    }
  }
  return found != nullptr && found->pw_dir != nullptr ? found->pw_dir : "";
}

std::string homeDir() {
  std::string home;
  if (proc::Env::get("HOME", home) && home.starts_with('/')) return home;
  return databaseHome();
}

}  // namespace kes::os
