#include "kespal/fs/Path.h"

#include <cerrno>
#include <cstdlib>

#include "kespal/error/FsError.h"
#include "sys/Owner.h"

namespace kes::fs {

Path& Path::assignCanonical() {
  // The result may be longer than PATH_MAX on some systems: the C library makes the room.
  const sys::MallocedText canonical(::realpath(c_str(), nullptr));
  if (!canonical) raiseAt({"os/posix/fs/Path", __LINE__, __func__}, FsError(*this, errno));
  assign(canonical.get());
  return *this;
}

}  // namespace kes::fs
