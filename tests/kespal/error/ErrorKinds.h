#pragma once

#include <cerrno>
#include <memory>
#include <vector>

#include "kespal/error/BadPermissionsError.h"
#include "kespal/error/DynError.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Access.h"

namespace kes::test {

/// One error of every class of the tree.
inline std::vector<std::unique_ptr<Exception>> oneOfEachKind() {
  std::vector<std::unique_ptr<Exception>> errors;
  const auto add = [&errors](const Exception& error) { errors.emplace_back(error.clone()); };
  add(OsError(EACCES));
  add(NoSuchProcessError(ESRCH));
  add(StaticError("text", "Name"));
  add(RuntimeError("text"));
  add(UsageError("text"));
  add(DynError("text", "Name"));
  add(FsError("/path", EIO));
  add(BadPermissionsError("/path", fs::Access(0, 80, 0750), "the reason"));
  add(ReadOnlyFileSystemError("/path", EROFS));
  add(NotSameDeviceError("/path", EXDEV));
  add(FileAccessError("/path", EACCES));
  add(NotASymlinkError("/path", EINVAL));
  add(FileExistsError("/path", EEXIST));
  add(IsASymlinkError("/path", ELOOP));
  add(FileBusyError("/path", ETXTBSY));
  add(NoSuchFileError("/path", ENOENT));
  return errors;
}

}  // namespace kes::test
