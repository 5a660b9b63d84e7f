#include "segments.h"

namespace kes::os {

// Pages can be kept from a child here, too, by minherit(). But the system copies the list of the attached
// segments without a look at the pages: the child would count as attached for as long as it lives.
bool keepFromChildren(void* /*address*/, std::size_t /*size*/) noexcept { return false; }

// A removed segment cannot be attached here, and its state not be asked for.
bool isRemoved(const shmid_ds& /*state*/) noexcept { return false; }

}  // namespace kes::os
