#include "kespal/fs/Path.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "kespal/error/FsError.h"

namespace kes::fs {

namespace {
struct Free {
  void operator()(char* text) const { ::free(text); }
};
}  // namespace

Path& Path::assignCanonical() {
  // The result may be longer than PATH_MAX on some systems: the C library makes the room.
  const std::unique_ptr<char, Free> canonical(::realpath(c_str(), nullptr));
  if (!canonical) raiseAt({"os/posix/fs/Path", __LINE__, __func__}, FsError(*this, errno));
  assign(canonical.get());
  return *this;
}

}  // namespace kes::fs
