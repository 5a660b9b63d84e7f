#pragma once  // since 0.1

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "pcaplib/export.h"

PCAPLIB_EXPORT_BEGIN

namespace kes::pcap {

/// What a capture file looks like. All are in the byte order of this machine, which readers see.
enum class Format {
  Pcap,            ///< the classic format, with microseconds
  NanosecondPcap,  ///< the same with nanoseconds
  Pcapng,          ///< blocks with nanoseconds, which have room for names and comments
};

/// One packet. The bytes and the texts need not outlive the call that takes it.
struct Packet {
  const void* data = nullptr;      ///< null only where `length` is 0
  std::uint32_t length = 0;        ///< in bytes
  std::uint32_t wireLength = 0;    ///< in bytes, if it was longer than `length` on the wire
  const timespec* time = nullptr;  ///< since 1970; null takes the wall clock
  const char* comment = nullptr;   ///< UTF-8, at most 65,535 bytes; only Pcapng has room for it
};

/// Writes captures of one interface, each into a file of its own, and says of every packet what became of it.
/// Unlike DumpPacket() it keeps the file open and has no table: there may be any number of writers, each used
/// by one thread at a time.
///
/// A packet is in the file, whole, when write() returns; nothing is kept back, and so a child that is forked
/// writes nothing twice. What does not fit is taken back, so that the file can be read at any moment, but for
/// a record that is being written. Into a FIFO or a device nothing can be taken back: what was torn there
/// ends the capture. SIGINT, SIGTERM, SIGHUP and SIGXFSZ, and a cancellation, wait in the calling thread
/// while a file is written; a program that wants EFBIG as a result ignores SIGXFSZ.
class Writer {
 public:
  /// What is the same for all packets of a capture. The texts need not outlive the constructor.
  struct Options {
    Format format = Format::Pcap;  ///< of the file
    std::uint32_t linkType = 1;    ///< LINKTYPE number of the packets; Ethernet. At most 65,535 in Pcapng
    const char* interfaceName = nullptr;  ///< UTF-8, at most 65,535 bytes; only Pcapng has room for it,
    const char* comment = nullptr;        ///< for this, too: on the capture as a whole
  };

  /// What became of the packets since the capture was started.
  struct Totals {
    std::uint64_t written = 0;  ///< packets
    std::uint64_t lost = 0;     ///< packets
    std::uint64_t bytes = 0;    ///< of the packets written, as they are in the file, without headers
  };

  /// The most bytes of a packet that go into a file: readers refuse longer ones. The rest is cut, and its
  /// length on the wire tells.
  static constexpr std::uint32_t longest = 262144;

  /// Creates the file with mode 0666 less the umask, or empties it, and writes what it begins with. To open a
  /// FIFO waits for its reader. kes::FsError with `path`, a null one (EFAULT) and an option out of its
  /// range (EINVAL) included.
  Writer(const char* path, const Options& options);
  /// Closes; what that may say is lost.
  ~Writer();
  /// What was moved from can be assigned to and destroyed, and nothing else.
  Writer(Writer&& other) noexcept;
  Writer& operator=(Writer&& other) noexcept;  ///< closes what this one had

  /// Writes one packet: 0 when it is in the file, else the errno that it was lost for, such as ENOSPC. EINVAL
  /// for a packet out of its range; EBADF when the writer is closed; and when a FIFO or a device took only a
  /// part of a packet, or a part could not be taken back, every later one is lost for the same errno.
  /// Raises kes::OsError when the clock cannot be read, and std::bad_alloc; then nothing is written.
  int write(const Packet& packet);
  const Totals& totals() const noexcept;  ///< valid while the writer lives

  /// Empties the file and starts a new capture in it, with totals of 0. kes::FsError, (EINVAL) for what is no
  /// file and (EBADF) when it is closed. If only the beginning could not be written, the file is empty, and
  /// packets are lost for the same errno until another reset() succeeds.
  void reset();
  /// Closes the file; the totals stay. kes::FsError: the system may tell only now that it had no room.
  /// Nothing to do when it is closed.
  void close();

 private:
  class State;

  std::unique_ptr<State> state_;
};

}  // namespace kes::pcap

PCAPLIB_EXPORT_END
