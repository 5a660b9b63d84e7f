#include "os/ErrorText.h"

#include <cstring>

namespace kes::os {

bool errorText(int errnum, char* buffer, std::size_t size) { return ::strerror_r(errnum, buffer, size) == 0; }

}  // namespace kes::os
