#pragma once  // since 0.1

#include <iosfwd>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// Owner, group and permission bits of a file. A plain value without a file behind it; an owner or group
/// with all bits set means none, or leave unchanged.
class Access {
 public:
  static constexpr unsigned Unchanged = 0xFFFFFFFF;  ///< an owner or group that is none

  Access() noexcept = default;  ///< no owner, no group, no bits
  /// Of the mode the twelve low bits count.
  explicit Access(unsigned short mode) noexcept : mode_(bits(mode)) {}
  Access(unsigned owner, unsigned group, unsigned short mode) noexcept
      : owner_(owner), group_(group), mode_(bits(mode)) {}

  unsigned owner() const noexcept { return owner_; }  ///< user id, or Unchanged
  unsigned group() const noexcept { return group_; }  ///< group id, or Unchanged
  /// The twelve low bits: set-id, sticky, and rwx for owner, group and others.
  unsigned short mode() const noexcept { return mode_; }

  /// Changes the mode as chmod(1) changes that of a file for the same text: octal digits, or clauses
  /// separated by commas, each of letters u g o a and one or more times + - = with letters r w x. As there,
  /// '=' takes the set-id or sticky bit of its class away. Without a letter in front, all are meant, as with
  /// a: the file creation mask does not count here, where chmod(1) spares its bits. Anything else, such as s,
  /// t, X or a copied class, is std::invalid_argument that says what and where; the mode stays then.
  void setMode(const std::string& text);

  /// Whether rights can be trusted: owner and group are the given ones, others may not write, and may not
  /// read unless that is allowed. What the group may do is not examined.
  bool isSafe(bool allowOthersRead, unsigned owner, unsigned group) const noexcept;

  /// Makes the mode of `mask` the process's file creation mask; returns the earlier one as a mode. It is
  /// process-wide: files that other threads create meanwhile are born under either.
  static Access setUmask(const Access& mask) noexcept;

 private:
  static constexpr unsigned short bits(unsigned mode) noexcept {
    return static_cast<unsigned short>(mode & 07777);
  }

  unsigned owner_ = Unchanged;
  unsigned group_ = Unchanged;
  unsigned short mode_ = 0;
};

/// Gives a file, links followed, or if `path` is null the file behind `fd`, the owner and group of `access`;
/// an unset one stays. The system drops set-id bits when a file changes hands: those that the mode of
/// `access` asks for are set again. FsError. Any thread may call.
void setOwnership(const char* path, int fd, const Access& access);

/// Writes owner, ":", group, " " and nine characters rwxrwxrwx, "-" for a clear bit; an unset owner or
/// group as "-". Example: "0:80 rwxr-x---".
std::ostream& operator<<(std::ostream& stream, const Access& access);

}  // namespace kes::fs

KES_EXPORT_END
