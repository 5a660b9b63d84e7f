#include "os/FrameNumbers.h"

namespace kes::os {

bool numbersFrames() noexcept { return true; }

}  // namespace kes::os
