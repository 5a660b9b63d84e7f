#pragma once

#include <cerrno>
#include <string>

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"

namespace kes::fs {

/// Makes a system call on paths. A null one among them is refused as the system would, with -1 and EFAULT:
/// compilers take for granted that a call is never given one.
template <typename Call, typename... Path>
[[gnu::always_inline]] inline auto onPath(Call call, Path... paths) {
  using Result = decltype(call(paths...));
  if (((paths != nullptr) && ...)) return call(paths...);
  errno = EFAULT;
  return Result{-1};
}

/// A row of a table of errors: these error numbers are raised as this class.
template <typename Error, int... Errnums>
struct Raise {
  template <typename... About>
  [[gnu::always_inline]] static inline void forThese(const Site& site, int errnum, const About&... about) {
    for (const int each : {Errnums...}) {
      if (errnum == each) raiseAt(site, Error(about..., errnum));
    }
  }
};

/// Which class a failed system call is raised as; what stands in no row is a `Rest`. `about` is what the
/// errors are made of besides the number: the path. All of it is inlined, so that the throw site is the
/// caller's own and costs what a switch there would cost.
template <typename Rest, typename... Rows>
struct Errors {
  template <typename... About>
  [[noreturn, gnu::always_inline]] static inline void raise(const Site& site, int errnum,
                                                            const About&... about) {
    (Rows::forThese(site, errnum, about...), ...);
    raiseAt(site, Rest(about..., errnum));
  }

  /// For a call that answers -1 and sets errno: raises if it did, and else gives its result.
  template <typename Result, typename... About>
  [[gnu::always_inline]] static inline Result check(const Site& site, Result result, const About&... about) {
    if (result == -1) [[unlikely]] {
      raise(site, errno, about...);
    }
    return result;
  }
};

// The tables, one for each family of operations on paths.
using PathErrors = Errors<FsError>;
using StatusErrors = Errors<FsError, Raise<NoSuchFileError, ENOENT>>;
using UnlinkErrors = Errors<FsError, Raise<FileAccessError, EACCES, EPERM>>;
using ReadlinkErrors =
    Errors<FsError, Raise<NoSuchFileError, ENOENT, ENOTDIR>, Raise<NotASymlinkError, EINVAL>>;
using SymlinkErrors = Errors<FsError, Raise<FileExistsError, EEXIST>>;
using MkdirErrors = Errors<FsError, Raise<FileExistsError, EEXIST>, Raise<NoSuchFileError, ENOENT>>;
using RenameErrors = Errors<FsError, Raise<NotSameDeviceError, EXDEV>, Raise<ReadOnlyFileSystemError, EROFS>>;
using OpenErrors = Errors<FsError, Raise<FileAccessError, EPERM, EACCES>, Raise<NoSuchFileError, ENOENT>,
                          Raise<FileBusyError, ETXTBSY>>;
using NoFollowErrors = Raise<IsASymlinkError, ELOOP>;  // come before those of opening
using ReadErrors = Errors<OsError, Raise<NoSuchProcessError, ESRCH>>;

/// Where Ops::setCWD() raises its errors, for a child that can only report one.
extern const Site setCwdSite;

}  // namespace kes::fs
