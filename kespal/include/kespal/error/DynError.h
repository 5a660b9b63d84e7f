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
  DynError(const DynError& other);
  /// Leaves `other` without a text.
  DynError(DynError&& other) noexcept;
  ~DynError() override;

  /// Where a throw site adds detail before it raises; what is written follows the text so far.
  std::stringstream& stream();

  std::string text() const override;
  void moreWhat() const override;

 protected:
  /// Writes the text of a derived error from its own fields, as soon as somebody wants to read it.
  using Compose = std::string (*)(const DynError& error);
  DynError(Compose compose, const char* name) noexcept : compose_(compose), name_(name) {}

  /// The text given at construction and all that was streamed since.
  std::string detail() const;

 private:
  // A stream costs more than the throw itself and most errors never need theirs, so it is made when someone
  // asks for it; from then on it holds the text.
  std::unique_ptr<std::stringstream> stream_;
  std::string text_;
  Compose compose_ = nullptr;
  const char* name_;
};

}  // namespace kes
