#pragma once

#include <cstdint>
#include <string>

#include "pcaplib/Writer.h"

namespace kes::pcap {

/// What stands before and behind the bytes of a packet.
struct Frame {
  std::string before;
  std::string behind;
};

/// What a capture file begins with.
std::string startOf(const Writer::Options& options);
/// Whether every option is in its range.
bool isRight(const Writer::Options& options) noexcept;

/// What frames a packet of which `length` bytes are in the file.
Frame frameOf(const Packet& packet, std::uint32_t length, const timespec& time, Format format);
bool isRight(const Packet& packet, const timespec& time, Format format) noexcept;

}  // namespace kes::pcap
