#include "kespal/error/StaticError.h"

namespace kes {

std::string StaticError::text() const { return text_ != nullptr ? text_ : ""; }

void StaticError::moreWhat() const {
  appendWhat(name_ != nullptr ? std::string(name_) + " error occured." : "error occured.");
  if (text_ != nullptr) appendWhat(std::string(" ") + text_);
}

}  // namespace kes
