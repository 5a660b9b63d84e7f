#pragma once  // since 0.1

#include "kespal/Export.h"
#include "kespal/error/Exception.h"

KES_EXPORT_BEGIN

namespace kes {

/// An error whose text is a literal. Neither string is copied: both must outlive every copy of the error,
/// and both may be null.
class StaticError : public Raisable<StaticError, Exception> {
 public:
  /// An error with this text, and the name of its kind.
  StaticError(const char* text, const char* name) noexcept : text_(text), name_(name) {}

  std::string text() const override;
  void moreWhat() const override;

 private:
  const char* text_;
  const char* name_;
};

/// A state was met that should be impossible, or that the caller could not foresee.
class RuntimeError : public Raisable<RuntimeError, StaticError> {
 public:
  /// `text` is a literal that says what was met.
  explicit RuntimeError(const char* text) noexcept : Raisable(text, "Runtime") {}
};

/// An operation was used in a way that it forbids.
class UsageError : public Raisable<UsageError, StaticError> {
 public:
  /// `text` is a literal that says what is forbidden.
  explicit UsageError(const char* text) noexcept : Raisable(text, "Usage") {}
};

}  // namespace kes

KES_EXPORT_END
