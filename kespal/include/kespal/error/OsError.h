#pragma once

#include "kespal/error/Exception.h"

namespace kes {

/// A system or library call failed with an error number: errno, or the code that the call returned.
class OsError : public Raisable<OsError, Exception> {
 public:
  explicit OsError(int errnum) noexcept : errnum_(errnum) {}

  int errnum() const noexcept { return errnum_; }
  /// The number in decimal; there are no symbolic names.
  std::string errnumLabel() const;

  /// The system's text for the number, then the number in parentheses. Should the system refuse, a line
  /// goes to standard error and the text is "<unknown-error>".
  std::string text() const override;
  void moreWhat() const override;

 private:
  int errnum_;
};

/// The process that was addressed does not exist (ESRCH).
class NoSuchProcessError : public Raisable<NoSuchProcessError, OsError> {
 public:
  using Raisable::Raisable;
};

}  // namespace kes
