#include "kespal/fs/Pipe.h"

#include <fcntl.h>

#include "kespal/error/OsError.h"
#include "os/FileCalls.h"
#include "sys/Owner.h"

namespace kes::fs {

Pipe Pipe::make(const EnumBitset<End>& nonBlocking) {
  int ends[2];
  check(KES_HERE, os::makePipe(ends));
  sys::Descriptor readEnd(ends[0]), writeEnd(ends[1]);
  if (nonBlocking.test(ReadEnd)) check(KES_HERE, ::fcntl(readEnd.get(), F_SETFL, O_NONBLOCK));
  if (nonBlocking.test(WriteEnd)) check(KES_HERE, ::fcntl(writeEnd.get(), F_SETFL, O_NONBLOCK));
  return {readEnd.release(), writeEnd.release()};
}

}  // namespace kes::fs
