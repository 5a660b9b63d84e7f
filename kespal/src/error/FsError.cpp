#include "kespal/error/FsError.h"

namespace kes {

namespace {

// Operations also answer questions with these errors (is the file there?), so the text can wait.
std::string location(const DynError& error) {
  return "At location: \"" + static_cast<const FsError&>(error).path() + '"';
}

}  // namespace

FsError::FsError(const std::string& path, int errnum)
    : Raisable(&location, "File system"), osError_(errnum), path_(path) {}

std::string FsError::text() const { return path_ + ": " + osError_.text(); }

void FsError::moreWhat() const {
  DynError::moreWhat();
  if (osError_.errnum() != 0) appendWhat("\nReason: " + osError_.text() + '.');
}

}  // namespace kes
