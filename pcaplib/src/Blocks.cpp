#include "Blocks.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string_view>

#include "FileFormat.h"

namespace kes::pcap {

namespace {

constexpr std::uint32_t nanosecondMagic = 0xA1B23C4D;
constexpr long nanosecondsPerSecond = 1'000'000'000;

// Blocks and options of pcapng.
constexpr std::uint32_t sectionHeader = 0x0A0D0D0A, interfaceDescription = 1, enhancedPacket = 6;
constexpr std::uint32_t byteOrderMagic = 0x1A2B3C4D;
constexpr std::uint16_t optionComment = 1, optionInterfaceName = 2, optionTimeResolution = 9;

template <typename Number>
void append(std::string& bytes, Number number) {
  char raw[sizeof number];
  std::memcpy(raw, &number, sizeof number);
  bytes.append(raw, sizeof raw);
}

/// Everything in the format begins at a multiple of four bytes.
std::size_t paddingOf(std::size_t length) { return (4 - length % 4) % 4; }

void appendOption(std::string& bytes, std::uint16_t code, std::string_view value) {
  append(bytes, code);
  append(bytes, static_cast<std::uint16_t>(value.size()));
  bytes.append(value).append(paddingOf(value.size()), '\0');
}

void appendText(std::string& bytes, std::uint16_t code, const char* text) {
  if (text != nullptr && *text != '\0') appendOption(bytes, code, text);
}

/// Where there are options, an empty one ends them.
std::string ended(std::string options) {
  if (!options.empty()) append(options, std::uint32_t{0});
  return options;
}

std::string block(std::uint32_t type, const std::string& body) {
  std::string bytes;
  const auto length = static_cast<std::uint32_t>(body.size() + 12);
  append(bytes, type);
  append(bytes, length);
  bytes += body;
  append(bytes, length);
  return bytes;
}

std::string section(const Writer::Options& options) {
  std::string body, texts;
  append(body, byteOrderMagic);
  append(body, std::uint16_t{1});  // the version is 1.0
  append(body, std::uint16_t{0});
  append(body, std::int64_t{-1});  // nobody knows yet how long it will be
  appendText(texts, optionComment, options.comment);
  return block(sectionHeader, body + ended(texts));
}

std::string interfaceOf(const Writer::Options& options) {
  std::string body, details;
  append(body, static_cast<std::uint16_t>(options.linkType));
  append(body, std::uint16_t{0});
  append(body, Writer::longest);
  appendText(details, optionInterfaceName, options.interfaceName);
  appendOption(details, optionTimeResolution, std::string_view("\x09", 1));  // 10^-9 seconds
  return block(interfaceDescription, body + ended(details));
}

Frame classicFrame(const timespec& time, std::uint32_t length, std::uint32_t wireLength, Format format) {
  const long fraction = format == Format::Pcap ? time.tv_nsec / 1000 : time.tv_nsec;
  Frame frame;
  append(frame.before, RecordHeader{.seconds = static_cast<std::uint32_t>(time.tv_sec),
                                    .microseconds = static_cast<std::uint32_t>(fraction),
                                    .capturedLength = length,
                                    .wireLength = wireLength});
  return frame;
}

Frame packetBlock(const timespec& time, std::uint32_t length, std::uint32_t wireLength, const char* comment) {
  const std::uint64_t stamp = static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond +
                              static_cast<std::uint64_t>(time.tv_nsec);
  Frame frame;
  frame.behind.append(paddingOf(length), '\0');
  std::string texts;
  appendText(texts, optionComment, comment);
  frame.behind += ended(texts);
  const auto total = static_cast<std::uint32_t>(32 + length + frame.behind.size());
  for (const std::uint32_t number :
       {enhancedPacket, total, std::uint32_t{0}, static_cast<std::uint32_t>(stamp >> 32),
        static_cast<std::uint32_t>(stamp), length, wireLength}) {
    append(frame.before, number);
  }
  append(frame.behind, total);
  return frame;
}

/// The last second that there is room for.
std::int64_t latest(Format format) noexcept {
  if (format != Format::Pcapng) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::int64_t>(std::numeric_limits<std::uint64_t>::max() / nanosecondsPerSecond) - 1;
}

bool fits(const char* text) noexcept {
  constexpr std::size_t most = std::numeric_limits<std::uint16_t>::max();
  return text == nullptr || ::strnlen(text, most + 1) <= most;
}

}  // namespace

std::string startOf(const Writer::Options& options) {
  if (options.format == Format::Pcapng) return section(options) + interfaceOf(options);
  FileHeader header{.snapshotLength = Writer::longest, .linkType = options.linkType};
  if (options.format == Format::NanosecondPcap) header.magic = nanosecondMagic;
  std::string bytes;
  append(bytes, header);
  return bytes;
}

bool isRight(const Writer::Options& options) noexcept {
  const bool hasRoom = options.format != Format::Pcapng || options.linkType <= 0xFFFF;
  return hasRoom && fits(options.interfaceName) && fits(options.comment);
}

Frame frameOf(const Packet& packet, std::uint32_t length, const timespec& time, Format format) {
  const std::uint32_t wireLength = std::max(packet.length, packet.wireLength);
  return format == Format::Pcapng ? packetBlock(time, length, wireLength, packet.comment)
                                  : classicFrame(time, length, wireLength, format);
}

bool isRight(const Packet& packet, const timespec& time, Format format) noexcept {
  const bool hasBytes = packet.data != nullptr || packet.length == 0;
  const bool isTime = time.tv_sec >= 0 && time.tv_sec <= latest(format) && time.tv_nsec >= 0 &&
                      time.tv_nsec < nanosecondsPerSecond;
  return hasBytes && isTime && fits(packet.comment);
}

}  // namespace kes::pcap
