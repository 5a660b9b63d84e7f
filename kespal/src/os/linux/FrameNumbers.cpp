#include "os/FrameNumbers.h"

namespace kes::os {

bool numbersFrames() noexcept { return false; }

}  // namespace kes::os
