#pragma once  // since 0.1

#include <cstdint>
#include <functional>
#include <string>

#include "kespal/EnumBitset.h"
#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/fs/Ops.h"

KES_EXPORT_BEGIN

namespace kes {
class Exception;
}

namespace kes::fs {

/// Copies a file, a link, or a directory with all that is in it. The copy gets permission bits, owner, group
/// and the times of reading and change; links are copied as links; several names of one file become several
/// names of its copy; holes of a file stay holes. Owner and group are given as far as the caller may: where
/// not, the copy is the caller's own, and has no set-id bits. Access control lists and extended attributes
/// are not copied. A pipe, socket or device is an error (FsError, ENOTSUP).
///
/// Links are never followed on the source's side, whoever may write to it; descriptors are few, and trees may
/// be deep, as for TreeWalk. The target is to be in a directory that nobody else can write to. It is
/// the caller's alone until it gets its rights, a directory when all in it is copied. No file is left copied
/// in part, and what is replaced stays until its replacement is whole, unless the process is killed. One
/// thread uses a copier at a time; it can be used again.
class TreeCopier : NoCopy {
 public:
  /// How far a copy is.
  struct Progress {
    const std::string& path;  ///< of the source's entry that is being copied, or was copied last
    std::uint64_t entries;    ///< copied so far
    std::uint64_t bytes;      ///< of their content, without holes
  };

  /// With OVERWRITE, what is at the target's place is replaced, and directories are merged; without it,
  /// it is an error. The other flags are always taken as set.
  explicit TreeCopier(const EnumBitset<Flags>& flags = {}) : flags_(flags) {}

  /// Called behind each entry and after each piece of 128 KiB of a file. False cancels: the entry in progress
  /// is taken back, what was copied stays. What it throws comes out of copy(), likewise.
  void onProgress(std::function<bool(const Progress&)> handler) { progressed_ = std::move(handler); }
  /// Called with what goes wrong with one entry. True goes on behind that entry, and leaves out what is in
  /// it; false raises the error. Without a handler the first error is raised. std::bad_alloc, and the FsError
  /// for a directory that was moved meanwhile (ESTALE), which ends the walk, are raised in any case.
  void onError(std::function<bool(const Exception&)> handler) { failed_ = std::move(handler); }

  /// Copies `from` to the path `to`, whose directory must exist. True when the end was reached, even if
  /// errors were passed over; false when it was cancelled. Every error is an FsError with the path of the
  /// entry, on the side that it is about: what exists without OVERWRITE is a FileExistsError, what is missing
  /// a NoSuchFileError, and EACCES and EPERM are a FileAccessError. A tree is not copied into itself
  /// (EINVAL).
  bool copy(const char* from, const char* to);

 private:
  EnumBitset<Flags> flags_;
  std::function<bool(const Progress&)> progressed_;
  std::function<bool(const Exception&)> failed_;
};

}  // namespace kes::fs

KES_EXPORT_END
