#include "inheritance.h"

#include <sys/mman.h>

namespace kes::os {

bool keepFromChildren(void* address, std::size_t size) noexcept {
  return ::madvise(address, size, MADV_DONTFORK) == 0;  // rounds the size up to whole pages
}

}  // namespace kes::os
