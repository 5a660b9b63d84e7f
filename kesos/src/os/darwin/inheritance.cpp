#include "inheritance.h"

namespace kes::os {

// Pages can be kept from a child here, too, by minherit(). But the system copies the list of the attached
// segments without a look at the pages: the child would count as attached for as long as it lives.
bool keepFromChildren(void* /*address*/, std::size_t /*size*/) noexcept { return false; }

}  // namespace kes::os
