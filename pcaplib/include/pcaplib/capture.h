#pragma once  // since 0.1

#include <cstdint>

#include "pcaplib/export.h"

PCAPLIB_EXPORT_BEGIN

/// What kind of packets a capture holds: an index into `cap_types`.
using PCAP_TYPE = unsigned int;
inline constexpr PCAP_TYPE PCAP_ETHERNET = 0;  ///< Ethernet frames
inline constexpr PCAP_TYPE PCAP_PPP = 1;       ///< frames of PPP
inline constexpr PCAP_TYPE PCAP_IP = 2;        ///< packets of IP, without a link layer

/// One kind of capture and the file that it is written to.
struct CaptureType {
  std::uint32_t linkType;  ///< link-layer type in the file's header
  char name[16];           ///< substituted into the file's name, NUL-padded
  std::uint8_t opened;     ///< 1 once DumpOpen() has created the file
  char path[1024];         ///< built by DumpOpen()
};

/// The process-wide table behind the two functions. There is no lock: one thread writes captures.
extern CaptureType cap_types[3];

/// Starts a capture: creates the file with mode 0666 less the umask, or empties it, and writes the file
/// header. In `fileName`, "%s" and "%1$s" stand for the type's name and "%2$s" (and a second "%s") for
/// `fileName` itself, with printf's flags, width and precision; "%%" is "%"; all else is taken as it
/// stands. Null or empty means "/kes_dump_%s.pcap". False when the file cannot be opened, there is no such
/// type, or the name has more than 1,023 characters, as it was given or as it was expanded.
///
/// SIGINT, SIGTERM, SIGHUP and SIGXFSZ wait in the calling thread until a file has its header. To open a FIFO
/// or a device may take long: that is open to all signals.
bool DumpOpen(const char* fileName, PCAP_TYPE type);

/// Appends one packet of `length` bytes, stamped with the wall clock, in one write; the file is opened and
/// closed around it. Between two packets the file is complete. Who reads it during the write may find the
/// last record in progress, and finds it whole at a second look.
///
/// A file that is empty gets its header first, and one that was removed is made anew; a FIFO or a device has
/// its header from DumpOpen(), and a disk takes no more than that. A type that was not opened is opened under
/// the default name. False when the file cannot be opened or there is no such type. A write that does not fit
/// (a full disk, a size limit) is taken back: it loses the packet without a word and leaves the file
/// readable. Raises kes::OsError when the clock cannot be read.
///
/// SIGINT, SIGTERM, SIGHUP and SIGXFSZ that come during the write to a file wait for its end in the calling
/// thread, so that none of them tears a record in a program of one thread. SIGKILL, and any other signal that
/// kills, can. A write to a FIFO or a device, which may take long, is open to all signals.
bool DumpPacket(const unsigned char* data, unsigned int length, PCAP_TYPE type);

/// Ends the capture of a type: its entry is as it was before DumpOpen(), and the file, which is complete, is
/// left alone. What is written to the type then goes into a file of the default name. False when there is no
/// such type. For the thread that writes captures.
bool DumpClose(PCAP_TYPE type);

PCAPLIB_EXPORT_END
