#include "kespal/error/DynError.h"

#include <utility>

namespace kes {

DynError::DynError(const DynError& other)
    : Raisable(other),
      text_(other.stream_ ? other.stream_->str() : other.text_),
      compose_(other.stream_ ? nullptr : other.compose_),
      name_(other.name_) {}

DynError::DynError(DynError&& other) noexcept
    : Raisable(std::move(other)),
      stream_(std::move(other.stream_)),
      text_(std::exchange(other.text_, {})),
      compose_(std::exchange(other.compose_, nullptr)),
      name_(other.name_) {}

DynError::~DynError() = default;

std::stringstream& DynError::stream() {
  if (!stream_) {
    auto stream = std::make_unique<std::stringstream>();
    *stream << detail();
    stream_ = std::move(stream);
  }
  return *stream_;
}

std::string DynError::detail() const {
  if (stream_) return stream_->str();
  return compose_ != nullptr ? compose_(*this) : text_;
}

std::string DynError::text() const { return detail(); }

void DynError::moreWhat() const {
  if (name_ != nullptr) appendWhat(std::string(name_) + " error occured. ");
  appendWhat(detail());
}

}  // namespace kes
