#include "wire/Wire.h"

#include <algorithm>
#include <array>
#include <bit>
#include <tuple>
#include <type_traits>

namespace kes::iokit {
namespace {

template <typename Number>
using BytesOf = std::array<std::uint8_t, sizeof(Number)>;

template <typename Number>
BytesOf<Number> inWireOrder(BytesOf<Number> bytes) {
  if constexpr (std::endian::native == std::endian::big) std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

template <typename Number>
std::uint8_t* store(Number value, std::uint8_t* out) {
  const auto bytes = inWireOrder<Number>(std::bit_cast<BytesOf<Number>>(value));
  return std::copy(bytes.begin(), bytes.end(), out);
}

template <typename Number>
const std::uint8_t* load(Number& value, const std::uint8_t* in) {
  BytesOf<Number> bytes;
  std::copy_n(in, bytes.size(), bytes.begin());
  value = std::bit_cast<Number>(inWireOrder<Number>(bytes));
  return in + bytes.size();
}

// The fields of a header in their order on the wire: one list for both directions.
template <typename Header>
auto fieldsOf(Header& header) {
  if constexpr (std::is_same_v<std::remove_const_t<Header>, RequestHeader>) {
    return std::tie(header.magic, header.version, header.kind, header.sequence, header.selector,
                    header.scalarCount, header.structureSize, header.scalarCapacity,
                    header.structureCapacity);
  } else {
    return std::tie(header.magic, header.version, header.kind, header.sequence, header.result,
                    header.scalarCount, header.structureSize);
  }
}

template <typename Header>
Header decode(const std::uint8_t* in) {
  Header header;
  std::apply([in](auto&... field) mutable { ((in = load(field, in)), ...); }, fieldsOf(header));
  return header;
}

template <typename Header>
std::uint8_t* encodeFields(const Header& header, std::uint8_t* out) {
  std::apply([&out](const auto&... field) { ((out = store(field, out)), ...); }, fieldsOf(header));
  return out;
}

template <typename Header>
std::uint64_t lengthOf(const Header& header) {
  return sizeof(Header) + std::uint64_t{8} * header.scalarCount + header.structureSize;
}

template <typename Header>
bool speaksOurVersion(const Header& header) {
  return header.magic == wireMagic && header.version == wireVersion;
}

bool isKnownKind(std::uint16_t kind) {
  return kind == static_cast<std::uint16_t>(Kind::Open) || kind == static_cast<std::uint16_t>(Kind::Call);
}

template <typename Header>
Message<Header> split(const Header& header, Bytes datagram) {
  const std::size_t scalarBytes = std::size_t{8} * header.scalarCount;
  return {header, datagram.subspan(sizeof(Header), scalarBytes),
          datagram.subspan(sizeof(Header) + scalarBytes)};
}

}  // namespace

template <typename Header>
std::uint64_t Message<Header>::scalar(std::size_t index) const {
  std::uint64_t value = 0;
  load(value, scalars.data() + 8 * index);
  return value;
}
template struct Message<RequestHeader>;
template struct Message<ReplyHeader>;

std::optional<Request> parseRequest(Bytes datagram) {
  if (datagram.size() < requestHeaderSize) return std::nullopt;
  const auto header = decode<RequestHeader>(datagram.data());
  if (!speaksOurVersion(header) || !isKnownKind(header.kind)) return std::nullopt;
  if (header.scalarCount > maxScalars || header.structureSize > maxStructure) return std::nullopt;
  if (datagram.size() != lengthOf(header)) return std::nullopt;
  return split(header, datagram);
}

Verdict judgeReply(Bytes received, std::size_t length, const Expectation& expected, Reply& reply) {
  if (received.size() < replyHeaderSize) return Verdict::Foreign;
  const auto header = decode<ReplyHeader>(received.data());
  const auto kind = static_cast<std::uint16_t>(static_cast<std::uint16_t>(expected.kind) | replyBit);
  if (!speaksOurVersion(header) || header.kind != kind) return Verdict::Foreign;
  if (length != lengthOf(header)) return Verdict::Foreign;
  const std::uint32_t age = expected.sequence - header.sequence;
  if (age != 0) return age <= expected.abandoned ? Verdict::Late : Verdict::Foreign;
  if (header.scalarCount > expected.scalarCapacity || header.structureSize > expected.structureCapacity) {
    return Verdict::TooLarge;
  }
  if (received.size() != length) return Verdict::TooLarge;
  reply = split(header, received);
  return Verdict::Accepted;
}

std::uint8_t* encode(const RequestHeader& header, std::uint8_t* out) { return encodeFields(header, out); }
std::uint8_t* encode(const ReplyHeader& header, std::uint8_t* out) { return encodeFields(header, out); }
std::uint8_t* encode64(std::uint64_t value, std::uint8_t* out) { return store(value, out); }

ReplyHeader replyTo(const RequestHeader& request) {
  ReplyHeader reply;
  reply.kind = static_cast<std::uint16_t>(request.kind | replyBit);
  reply.sequence = request.sequence;
  return reply;
}

void makeReply(std::vector<std::uint8_t>& datagram, ReplyHeader header,
               std::span<const std::uint64_t> scalars, Bytes structure) {
  header.scalarCount = static_cast<std::uint32_t>(scalars.size());
  header.structureSize = static_cast<std::uint32_t>(structure.size());
  datagram.resize(replyHeaderSize + 8 * scalars.size() + structure.size());
  std::uint8_t* end = encode(header, datagram.data());
  for (const std::uint64_t scalar : scalars) end = encode64(scalar, end);
  std::copy(structure.begin(), structure.end(), end);
}

}  // namespace kes::iokit
