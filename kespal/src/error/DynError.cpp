#include "kespal/error/DynError.h"

#include <utility>

namespace kes {

DynError::DynError(const DynError& other) : Raisable(other), text_(other.detail()), name_(other.name_) {}

DynError::DynError(DynError&& other) noexcept
    : Raisable(std::move(other)),
      stream_(std::move(other.stream_)),
      text_(std::exchange(other.text_, {})),
      name_(other.name_) {}

DynError::~DynError() = default;

std::stringstream& DynError::stream() {
  if (!stream_) {
    auto stream = std::make_unique<std::stringstream>();
    stream->exceptions(std::ios::badbit);  // or it would swallow std::bad_alloc, and text with it
    *stream << text_;
    stream_ = std::move(stream);
  }
  return *stream_;
}

std::string DynError::text() const { return detail(); }

void DynError::moreWhat() const {
  if (name_ != nullptr) appendWhat(std::string(name_) + " error occured. ");
  appendWhat(detail());
}

}  // namespace kes
