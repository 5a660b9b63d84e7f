#include "kespal/fs/StandardPaths.h"

#include "kespal/error/Exception.h"
#include "kespal/proc/Env.h"

namespace kes::fs {

namespace {

/// What cannot be examined does not exist for us.
bool usable(const Path& path) {
  try {
    return path.exists();
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace

Path StandardPaths::tempDir() {
  std::string value;
  if (proc::Env::get("TMPDIR", value)) {
    Path path(value);
    if (usable(path)) return path;
  }
  return "/tmp";
}

}  // namespace kes::fs
