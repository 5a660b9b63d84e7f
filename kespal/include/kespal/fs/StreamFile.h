#pragma once  // since 0.1

#include <cstddef>

#include "kespal/Export.h"
#include "kespal/fs/File.h"

KES_EXPORT_BEGIN

namespace kes {

/// Where bytes can be read from. Nobody owns an object through this interface. The errors are those of the
/// class behind it, and so is what threads may do.
class IInput {
 public:
  /// Reads at most `size` bytes into `buffer`; returns their count, 0 at the end.
  virtual std::size_t read(void* buffer, const std::size_t& size) = 0;

 protected:
  ~IInput() = default;
};

/// Where bytes can be written to. Nobody owns an object through this interface. The errors are those of the
/// class behind it, and so is what threads may do.
class IOutput {
 public:
  /// Writes at most `size` bytes of `buffer`; returns the count written, which may be smaller.
  virtual std::size_t write(const void* buffer, const std::size_t& size) = 0;
  /// Brings what was written to where it is safe; false when that means nothing here.
  virtual bool flush() = 0;

 protected:
  ~IOutput() = default;
};

/// Both directions.
class IInOut : public IInput, public IOutput {
 protected:
  ~IInOut() = default;
};

namespace fs {

/// A file read and written as a stream of bytes, without a buffer: every operation is one system call, and
/// an interrupted one (EINTR) is not repeated. It waits where the system does, as for bytes of a pipe or a
/// terminal, or for room in a pipe. Opened with the forms of File::open().
class StreamFile : public File, public IInOut {
 public:
  /// Where an offset counts from. Any other value means FROM_START.
  enum SeekBase : int { FROM_START = 0, FROM_CURRENT = 1, FROM_END = 2 };

  /// Reads at most `size` bytes; returns their count, 0 at the end of the file. ESRCH:
  /// NoSuchProcessError (the process whose entry below /proc this is has ended); otherwise OsError.
  std::size_t read(void* buffer, const std::size_t& size) override;
  /// Writes at most `size` bytes; returns the count written, which may be smaller. OsError.
  std::size_t write(const void* buffer, const std::size_t& size) override;
  /// Brings the file's content to the device; false when it has none, as a pipe or a terminal. OsError.
  bool flush() override;
  /// Moves to an offset in bytes; returns it, counted from the start. A negative one, converted to
  /// std::size_t, goes backwards. OsError.
  std::size_t seek(const std::size_t& offset, SeekBase base = FROM_START);
};

}  // namespace fs
}  // namespace kes

KES_EXPORT_END
