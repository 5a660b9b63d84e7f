#include "os/SavedIds.h"

#include <unistd.h>

namespace kes::os {

unsigned savedUserId() noexcept {
  uid_t real = 0, effective = 0, saved = 0;
  ::getresuid(&real, &effective, &saved);
  return saved;
}

}  // namespace kes::os
