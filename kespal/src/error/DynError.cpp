#include "kespal/error/DynError.h"

namespace kes {

namespace {

std::unique_ptr<std::stringstream> streamBehind(const std::string& text) {
  auto stream = std::make_unique<std::stringstream>(text, std::ios::in | std::ios::out | std::ios::ate);
  stream->exceptions(std::ios::badbit);  // or it would swallow std::bad_alloc, and text with it
  return stream;
}

}  // namespace

DynError::DynError(const DynError& other)
    : Raisable(other),
      before_(other.before_),
      given_(other.given_),
      after_(other.after_),
      stream_(other.stream_ ? streamBehind(other.detail()) : nullptr),
      name_(other.name_) {}

DynError::DynError(DynError&& other) noexcept
    : Raisable(std::move(other)),
      before_(std::exchange(other.before_, "")),
      given_(std::exchange(other.given_, {})),
      after_(std::exchange(other.after_, "")),
      stream_(std::move(other.stream_)),
      name_(other.name_) {}

DynError::~DynError() = default;

std::stringstream& DynError::stream() {
  if (!stream_) stream_ = streamBehind(detail());
  stream_->clear();  // what failed or was read to its end before keeps nobody from writing
  return *stream_;
}

std::string DynError::detail() const { return stream_ ? stream_->str() : before_ + given_ + after_; }

std::string DynError::text() const { return detail(); }

void DynError::moreWhat() const {
  if (name_ != nullptr) appendWhat(std::string(name_) + " error occured. ");
  appendWhat(detail());
}

}  // namespace kes
