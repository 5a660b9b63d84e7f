#pragma once

namespace kes::os {

/// Whether the system's text of a frame begins with the frame's number on its stack.
bool numbersFrames() noexcept;

}  // namespace kes::os
