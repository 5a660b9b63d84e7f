#include "kespal/error/DynError.h"

namespace kes {

DynError::DynError(const DynError& other) : Raisable(other), text_(other.detail()), name_(other.name_) {}

DynError::~DynError() = default;

std::stringstream& DynError::stream() {
  if (!stream_) {
    stream_ = std::make_unique<std::stringstream>();
    *stream_ << text_;
    text_.clear();
  }
  return *stream_;
}

std::string DynError::detail() const { return stream_ ? stream_->str() : text_; }

std::string DynError::text() const { return detail(); }

void DynError::moreWhat() const {
  if (name_ != nullptr) appendWhat(std::string(name_) + " error occured. ");
  appendWhat(detail());
}

}  // namespace kes
