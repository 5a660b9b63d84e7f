#pragma once

#include <iosfwd>
#include <string>

namespace kes::fs {

/// Owner, group and permission bits of a file. A plain value without a file behind it; an owner or group
/// with all bits set means none, or leave unchanged.
class Access {
 public:
  static constexpr unsigned Unchanged = 0xFFFFFFFF;

  Access() noexcept = default;
  explicit Access(unsigned short mode) noexcept : mode_(bits(mode)) {}
  Access(unsigned owner, unsigned group, unsigned short mode) noexcept
      : owner_(owner), group_(group), mode_(bits(mode)) {}

  unsigned owner() const noexcept { return owner_; }
  unsigned group() const noexcept { return group_; }
  /// The twelve low bits: set-id, sticky, and rwx for owner, group and others.
  unsigned short mode() const noexcept { return mode_; }

 private:
  static constexpr unsigned short bits(unsigned mode) noexcept {
    return static_cast<unsigned short>(mode & 07777);
  }

  unsigned owner_ = Unchanged;
  unsigned group_ = Unchanged;
  unsigned short mode_ = 0;
};

/// Writes owner, ":", group, " " and nine characters rwxrwxrwx, "-" for a clear bit; an unset owner or
/// group as "-". Example: "0:80 rwxr-x---".
std::ostream& operator<<(std::ostream& stream, const Access& access);

}  // namespace kes::fs
