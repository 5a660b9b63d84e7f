#pragma once  // since 0.1

#include <cstddef>
#include <iosfwd>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// Bytes to be written to a stream as hexadecimal digits: `stream << Hexdump{data, size, 16, " "}`. A plain
/// record; the bytes stay the caller's and must live until they are written.
struct Hexdump {
  const unsigned char* data = nullptr;  ///< the first byte
  std::size_t size = 0;                 ///< count of bytes
  int perLine = 0;                      ///< bytes of one line; 0 or less: all on one line
  std::string separator;                ///< between two bytes of a line
};

/// Writes every byte with two digits, the bytes of a line apart by the separator and the lines by a newline,
/// with none at the end; "nullptr" when there is no data. Of the stream's flags only std::uppercase counts,
/// which gives "AB"; its fill and its locale do not. Flags and fill stay as they are, even if it throws; the
/// width is used up, unless there are no bytes: nothing at all happens then.
std::ostream& operator<<(std::ostream& stream, const Hexdump& dump);

}  // namespace kes

KES_EXPORT_END
