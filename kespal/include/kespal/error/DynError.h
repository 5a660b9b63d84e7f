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
  ~DynError() override;

  /// Where a throw site adds detail before it raises; what is written follows the text so far.
  std::stringstream& stream();

  std::string text() const override;
  void moreWhat() const override;

 protected:
  /// The text given at construction and all that was streamed since.
  std::string detail() const;

 private:
  // A stream costs more than the throw itself, and most errors never need theirs: the text is kept as a
  // string until someone asks for the stream.
  std::string text_;
  std::unique_ptr<std::stringstream> stream_;
  const char* name_;
};

}  // namespace kes
