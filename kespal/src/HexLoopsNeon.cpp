// Every 64-bit ARM processor has these instructions.
#include <arm_neon.h>

#include "HexLoops.h"

namespace kes::hexloops::best {

namespace {

/// The two digits of sixteen bytes, each pair in the same place.
struct Digits {
  uint8x16_t high, low;
};

class Encoder {
 public:
  explicit Encoder(bool upper) noexcept
      : digits_(vld1q_u8(
            reinterpret_cast<const unsigned char*>(upper ? "0123456789ABCDEF" : "0123456789abcdef"))) {}

  Digits digitsOf(const unsigned char* bytes) const noexcept {
    const uint8x16_t values = vld1q_u8(bytes);
    return {vqtbl1q_u8(digits_, vshrq_n_u8(values, 4)),
            vqtbl1q_u8(digits_, vandq_u8(values, vdupq_n_u8(0x0F)))};
  }

 private:
  uint8x16_t digits_;
};

/// The values of sixteen digits, and for each whether it is one: all bits of its byte, or none.
struct Values {
  uint8x16_t of, known;

  explicit Values(uint8x16_t digits) noexcept {
    const uint8x16_t decimal = vsubq_u8(digits, vdupq_n_u8('0'));
    const uint8x16_t letter = vsubq_u8(vorrq_u8(digits, vdupq_n_u8(0x20)), vdupq_n_u8('a'));
    const uint8x16_t isDecimal = vcltq_u8(decimal, vdupq_n_u8(10));
    of = vbslq_u8(isDecimal, decimal, vaddq_u8(letter, vdupq_n_u8(10)));
    known = vorrq_u8(isDecimal, vcltq_u8(letter, vdupq_n_u8(6)));
  }
};

}  // namespace

void encode(const unsigned char* bytes, std::size_t size, bool upper, char* to) noexcept {
  const Encoder encoder(upper);
  for (; size >= 16; size -= 16, bytes += 16, to += 32) {
    const Digits digits = encoder.digitsOf(bytes);
    vst2q_u8(reinterpret_cast<unsigned char*>(to), (uint8x16x2_t{{digits.high, digits.low}}));
  }
  plain::encode(bytes, size, upper, to);
}

void encodeSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper,
                     char* to) noexcept {
  const Encoder encoder(upper);
  const uint8x16_t separators = vdupq_n_u8(static_cast<unsigned char>(separator));
  for (; size >= 16; size -= 16, bytes += 16, to += 48) {
    const Digits digits = encoder.digitsOf(bytes);
    vst3q_u8(reinterpret_cast<unsigned char*>(to), (uint8x16x3_t{{digits.high, digits.low, separators}}));
  }
  plain::encodeSeparated(bytes, size, separator, upper, to);
}

void decode(Decoding& decoding) noexcept {
  Decoding at = decoding;
  for (; at.end - at.text >= 32; at.text += 32, at.bytes += 16) {
    const uint8x16x2_t pairs = vld2q_u8(reinterpret_cast<const unsigned char*>(at.text));
    const Values high(pairs.val[0]), low(pairs.val[1]);
    if (vminvq_u8(vandq_u8(high.known, low.known)) == 0) break;
    vst1q_u8(at.bytes, vorrq_u8(vshlq_n_u8(high.of, 4), low.of));
  }
  decoding = at;
  plain::decode(decoding);
}

}  // namespace kes::hexloops::best
