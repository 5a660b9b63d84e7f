#pragma once

namespace kes::fs {

/// The two descriptors of a pipe, -1 where an end is not held. A plain record: it closes nothing.
struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;
};

}  // namespace kes::fs
