#pragma once

#include <memory>
#include <sstream>
#include <string>

#include "kespal/error/Exception.h"

namespace kes {

/// An error whose text is composed at run time. The name is a literal that must outlive every copy of the
/// error, or null.
class DynError : public Raisable<DynError, Exception> {
 public:
  DynError(std::string text, const char* name) : text_(std::move(text)), name_(name) {}
  /// The copy of an error, or of this part of a derived one, has a text of its own.
  DynError(const DynError& other);
  /// Leaves `other` without a text.
  DynError(DynError&& other) noexcept;
  ~DynError() override;

  /// Where a throw site adds detail before it raises; what is written follows the text so far. For want of
  /// memory std::bad_alloc comes out of the writing.
  std::stringstream& stream();

  std::string text() const override;
  void moreWhat() const override;

 private:
  /// The text given at construction and all that was streamed since.
  std::string detail() const { return stream_ ? stream_->str() : text_; }

  // A stream costs more than the throw itself and most errors never need theirs, so it is made when someone
  // asks for it; from then on it holds the text.
  std::unique_ptr<std::stringstream> stream_;
  std::string text_;
  const char* name_;
};

}  // namespace kes
