#pragma once  // since 0.1

#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "kespal/Export.h"
#include "kespal/error/Exception.h"

KES_EXPORT_BEGIN

namespace kes {

/// An error whose text is composed at run time. The name is a literal that must outlive every copy of the
/// error, or null.
class DynError : public Raisable<DynError, Exception> {
 public:
  /// An error with this text, and the name of its kind.
  DynError(std::string text, const char* name) noexcept : DynError("", std::move(text), "", name) {}
  /// The copy of an error, or of this part of a derived one, has a text of its own. std::bad_alloc.
  DynError(const DynError& other);
  /// Leaves `other` without a text.
  DynError(DynError&& other) noexcept;
  ~DynError() override;

  /// Where a throw site adds detail before it raises; what is written follows the text so far. A text that
  /// what() has built before stays as it is, but not in copies, hence not in what is raised. The stream is
  /// good after every call. A write that fails throws, by then perhaps done in part: std::bad_alloc for want
  /// of memory, or std::ios_base::failure, as the standard library has it.
  std::stringstream& stream();

  std::string text() const override;
  void moreWhat() const override;

 protected:
  /// For a class whose text is what it was given, between two literals.
  DynError(const char* before, std::string given, const char* after, const char* name) noexcept
      : before_(before), given_(std::move(given)), after_(after), name_(name) {}

  const std::string& given() const noexcept { return given_; }  ///< the text of the construction

 private:
  /// The text given at construction and all that was streamed since.
  std::string detail() const;

  const char* before_;
  std::string given_;
  const char* after_;
  // A stream costs more than the throw itself and most errors never need theirs, so it is made when someone
  // asks for it; from then on it holds the text.
  std::unique_ptr<std::stringstream> stream_;
  const char* name_;
};

}  // namespace kes

KES_EXPORT_END
