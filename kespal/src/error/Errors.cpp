// What each class of errors says.
#include "error/Report.h"
#include "kespal/error/BadPermissionsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Access.h"
#include "os/System.h"

namespace kes {

namespace {

constexpr const char* complaint = ": bad file permissions encountered: ";

std::unique_ptr<std::stringstream> streamBehind(const std::string& text) {
  auto stream = std::make_unique<std::stringstream>(text, std::ios::in | std::ios::out | std::ios::ate);
  stream->exceptions(std::ios::badbit);  // or it would swallow std::bad_alloc, and text with it
  return stream;
}

}  // namespace

std::string OsError::errnumLabel() const { return std::to_string(errnum_); }

std::string OsError::text() const {
  char buffer[128] = "";
  std::string text;
  if (os::errorText(errnum_, buffer, sizeof buffer)) {
    text = buffer;
  } else {
    report({"text: error getting error text from strerror_r!\n"});
    text = "<unknown-error>";
  }
  return text + " (" + errnumLabel() + ')';
}

void OsError::moreWhat() const { appendWhat("System/Library call error: " + text()); }

std::string StaticError::text() const { return text_ != nullptr ? text_ : ""; }

void StaticError::moreWhat() const {
  appendWhat(name_ != nullptr ? std::string(name_) + " error occured." : "error occured.");
  if (text_ != nullptr) appendWhat(std::string(" ") + text_);
}

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

FsError::FsError(const std::string& path, int errnum)
    : Raisable("At location: \"", path, "\"", "File system"), osError_(errnum) {}

std::string FsError::text() const { return path() + ": " + osError_.text(); }

void FsError::moreWhat() const {
  DynError::moreWhat();
  if (osError_.errnum() != 0) appendWhat("\nReason: " + osError_.text() + '.');
}

BadPermissionsError::BadPermissionsError(const std::string& path, const fs::Access& access,
                                         const std::string& reason)
    : Raisable(path, EINVAL), reason_(reason) {
  stream() << complaint << reason << "\nPermissions of file are: " << access;
}

std::string BadPermissionsError::text() const { return path() + complaint + reason_; }

}  // namespace kes
