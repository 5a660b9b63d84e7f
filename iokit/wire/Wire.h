#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// The datagrams between a user client and a driver: one request, one reply. Each is a fixed header, then
/// the scalars (8 bytes each), then the structure; all numbers are little-endian, and a datagram is exactly
/// as long as its header says. docs/user-client.md draws them.
namespace kes::iokit {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint32_t wireMagic = 0x5553454b;  ///< the bytes "KESU"
constexpr std::uint16_t wireVersion = 1;
constexpr std::uint16_t replyBit = 0x8000;  ///< a reply's kind is its request's with this bit
constexpr std::size_t maxScalars = 16;      ///< as the kernel limits them
constexpr std::size_t maxStructure = 4096;  ///< as the kernel limits what travels in a message

enum class Kind : std::uint16_t {
  Open = 1,  ///< IOServiceOpen(): the selector field holds its type argument
  Call = 2,  ///< IOConnectCallMethod()
};

struct RequestHeader {
  std::uint32_t magic = wireMagic;
  std::uint16_t version = wireVersion;
  std::uint16_t kind = 0;
  std::uint32_t sequence = 0;
  std::uint32_t selector = 0;
  std::uint32_t scalarCount = 0;
  std::uint32_t structureSize = 0;
  std::uint32_t scalarCapacity = 0;
  std::uint32_t structureCapacity = 0;
};

struct ReplyHeader {
  std::uint32_t magic = wireMagic;
  std::uint16_t version = wireVersion;
  std::uint16_t kind = 0;
  std::uint32_t sequence = 0;
  std::uint32_t result = 0;
  std::uint32_t scalarCount = 0;
  std::uint32_t structureSize = 0;
};

constexpr std::size_t requestHeaderSize = 32;
constexpr std::size_t replyHeaderSize = 24;
static_assert(sizeof(RequestHeader) == requestHeaderSize, "no padding: the size is that of the fields");
static_assert(sizeof(ReplyHeader) == replyHeaderSize, "no padding: the size is that of the fields");

constexpr std::size_t maxRequest = requestHeaderSize + 8 * maxScalars + maxStructure;
constexpr std::size_t maxReply = replyHeaderSize + 8 * maxScalars + maxStructure;

/// A parsed datagram; the spans lie in the bytes that were parsed.
template <typename Header>
struct Message {
  Header header;
  Bytes scalars;
  Bytes structure;

  /// The scalar at `index`, which is below header.scalarCount.
  std::uint64_t scalar(std::size_t index) const;
};
using Request = Message<RequestHeader>;
using Reply = Message<ReplyHeader>;

/// The request in a datagram, or nothing: too short, another magic or version, an unknown kind, counts above
/// the limits, or a length other than the header's.
std::optional<Request> parseRequest(Bytes datagram);

/// What a caller waits for.
struct Expectation {
  Kind kind = Kind::Call;
  std::uint32_t sequence = 0;
  std::uint32_t abandoned = 0;  ///< so many calls just before this one ended without their reply
  std::size_t scalarCapacity = 0;
  std::size_t structureCapacity = 0;
};

enum class Verdict {
  Accepted,
  Late,      ///< the reply to an abandoned call: ours is still to come
  Foreign,   ///< not the reply to this request, or not as long as it says
  TooLarge,  ///< honest, but above a capacity
};

/// Judges a datagram of `length` bytes of which `received` arrived (a long one is cut); `reply` is set when
/// it is accepted.
Verdict judgeReply(Bytes received, std::size_t length, const Expectation& expected, Reply& reply);

/// Writes the header in its wire form; returns the end.
std::uint8_t* encode(const RequestHeader& header, std::uint8_t* out);
std::uint8_t* encode(const ReplyHeader& header, std::uint8_t* out);
/// Writes one number in its wire form; returns the end.
std::uint8_t* encode64(std::uint64_t value, std::uint8_t* out);

/// The header of the reply to a request: no results yet.
ReplyHeader replyTo(const RequestHeader& request);
/// Makes `datagram` a whole reply; the header's counts are taken from what follows it.
void makeReply(std::vector<std::uint8_t>& datagram, ReplyHeader header,
               std::span<const std::uint64_t> scalars, Bytes structure);

}  // namespace kes::iokit
