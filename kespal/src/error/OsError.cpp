#include "kespal/error/OsError.h"

#include "error/Report.h"
#include "os/System.h"

namespace kes {

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

}  // namespace kes
