#pragma once  // since 0.1

#include <cerrno>

#include "kespal/Export.h"
#include "kespal/error/Exception.h"

KES_EXPORT_BEGIN

namespace kes {

/// A system or library call failed with an error number: errno, or the code that the call returned.
class OsError : public Raisable<OsError, Exception> {
 public:
  explicit OsError(int errnum) noexcept : errnum_(errnum) {}  ///< from errno or a call's result

  int errnum() const noexcept { return errnum_; }  ///< as it was given
  /// The number in decimal; there are no symbolic names.
  std::string errnumLabel() const;

  /// The system's text for the number, then the number in parentheses. Should the system refuse, a line
  /// goes to standard error and the text is "<unknown-error>", with the number behind it as always.
  std::string text() const override;
  void moreWhat() const override;

 private:
  int errnum_;
};

/// For a call that answers -1 and sets errno: raises an OsError from the site when it failed, else gives its
/// result. `check(KES_HERE, ::chdir(path));` is the whole of a wrapper: nothing stands between the call and
/// the reading of errno. Any thread may call.
template <typename Result>
[[gnu::always_inline]] inline Result check(const Site& site, Result result) {
  if (result == -1) [[unlikely]] {
    // A copy of its own: otherwise the site is laid down before every call that succeeds.
    raiseAt(Site(site), OsError(errno));
  }
  return result;
}

/// For a call that returns 0 or an error number, as those of POSIX threads do: raises it as an OsError from
/// the site. Any thread may call.
[[gnu::always_inline]] inline void checkCode(const Site& site, int errnum) {
  if (errnum != 0) [[unlikely]] {
    raiseAt(Site(site), OsError(errnum));
  }
}

/// The process that was addressed does not exist (ESRCH).
class NoSuchProcessError : public Raisable<NoSuchProcessError, OsError> {
 public:
  using Raisable::Raisable;
};

}  // namespace kes

KES_EXPORT_END
