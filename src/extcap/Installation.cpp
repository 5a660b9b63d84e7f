#include "Installation.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Ops.h"
#include "kespal/proc/Info.h"
#include "sys/Owner.h"

namespace kes::extcap {

namespace {

constexpr char program[] = "kestrace-extcap";

std::string valueOf(const char* variable) {
  const char* const value = ::getenv(variable);
  return value != nullptr ? value : "";
}

/// Where this program lies, for good: not the link that it was started by.
std::string ownPath() {
  const std::string path = proc::Info::exe();
  const sys::MallocedText real(::realpath(path.c_str(), nullptr));
  if (!real) raiseAt(KES_HERE, FsError(path, errno));
  return real.get();
}

bool isLink(const std::string& path) {
  char target;
  return ::readlink(path.c_str(), &target, sizeof target) != -1;
}

}  // namespace

std::vector<std::string> foldersOfUser() {
  const std::string home = valueOf("HOME"), config = valueOf("XDG_CONFIG_HOME");
  if (home.empty()) raiseAt(KES_HERE, RuntimeError("HOME is not set: whose folders are meant?"));
  return {home + "/.local/lib/wireshark/extcap",
          (config.empty() ? home + "/.config" : config) + "/wireshark/extcap"};
}

std::string installForUser() {
  const std::string target = ownPath();
  std::string report;
  for (const std::string& folder : foldersOfUser()) {
    fs::Ops::tryMakedirs(folder.c_str());
    const std::string link = folder + '/' + program;
    if (isLink(link)) fs::Ops::removeFile(link.c_str());
    fs::Ops::symlink(link.c_str(), target.c_str());
    report += link + " -> " + target + '\n';
  }
  return report;
}

}  // namespace kes::extcap
