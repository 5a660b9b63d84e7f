#include "segments.h"

#include <sys/mman.h>

namespace kes::os {

bool keepFromChildren(void* address, std::size_t size) noexcept {
  return ::madvise(address, size, MADV_DONTFORK) == 0;  // rounds the size up to whole pages
}

bool isRemoved(const shmid_ds& state) noexcept { return (state.shm_perm.mode & SHM_DEST) != 0; }

}  // namespace kes::os
