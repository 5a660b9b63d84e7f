#pragma once  // since 0.1

#include "kespal/EnumBitset.h"

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// The two descriptors of a pipe, -1 where an end is not held. A plain record: it closes nothing. Who wants
/// an end closed in time hands it to a File.
struct Pipe {
  int readEnd = -1;   ///< where bytes come out
  int writeEnd = -1;  ///< where they go in

  /// Names ends.
  enum End : unsigned { ReadEnd = 0x1, WriteEnd = 0x2 };

  /// Makes a pipe, both ends close-on-exec. Those that are named do not block: what cannot be done at once
  /// fails there (EAGAIN). Leave an end that a program gets as its stream blocking; few can do without. On
  /// Linux no other thread can start a program that inherits an end. macOS sets close-on-exec by a call of
  /// its own, and a program that another thread starts in between has both ends. OsError (EMFILE, ENFILE),
  /// after which there is no pipe. Any thread may call.
  static Pipe make(const EnumBitset<End>& nonBlocking = {});
};

}  // namespace kes::fs

KES_EXPORT_END
