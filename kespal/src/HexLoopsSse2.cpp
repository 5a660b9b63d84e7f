// Every x86-64 processor has these instructions.
#include <emmintrin.h>

#include <cstring>

#include "HexLoops.h"

namespace kes::hexloops::best {

namespace {

__m128i load(const void* from) noexcept { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }
void store(void* to, __m128i value) noexcept { _mm_storeu_si128(static_cast<__m128i*>(to), value); }

/// All bits of a byte where it is, unsigned, at most `most`.
__m128i atMost(__m128i bytes, char most) noexcept {
  return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(most)), bytes);
}

/// Sixteen bytes as digits, in memory order.
struct Digits {
  __m128i first, second;
};

class Encoder {
 public:
  explicit Encoder(bool upper) noexcept
      : gap_(_mm_set1_epi8(static_cast<char>((upper ? 'A' : 'a') - '9' - 1))) {}

  Digits digitsOf(__m128i bytes) const noexcept {
    const __m128i nibble = _mm_set1_epi8(0x0F);
    const __m128i high = digitsOfNibbles(_mm_and_si128(_mm_srli_epi16(bytes, 4), nibble));
    const __m128i low = digitsOfNibbles(_mm_and_si128(bytes, nibble));
    return {_mm_unpacklo_epi8(high, low), _mm_unpackhi_epi8(high, low)};
  }

 private:
  __m128i digitsOfNibbles(__m128i values) const noexcept {
    const __m128i letters = _mm_cmpgt_epi8(values, _mm_set1_epi8(9));
    return _mm_add_epi8(_mm_add_epi8(values, _mm_set1_epi8('0')), _mm_and_si128(letters, gap_));
  }

  __m128i gap_;  // between '9' and the first letter
};

/// Puts a separator behind each pair of digits. A 64-bit lane of four pairs "00112233" becomes the eight
/// characters "00:11:22" and the four characters ":33:".
class Spreader {
 public:
  explicit Spreader(char separator) noexcept {
    const long long each = static_cast<unsigned char>(separator);
    inEight_ = _mm_set1_epi64x(each << 16 | each << 40);
    inFour_ = _mm_set1_epi64x(each | each << 24);
  }

  void store(char* to, __m128i digits) const noexcept {
    const __m128i first = _mm_and_si128(digits, _mm_set1_epi64x(0xFFFF));
    const __m128i second = _mm_and_si128(digits, _mm_set1_epi64x(0xFFFF0000));
    const __m128i third = _mm_and_si128(digits, _mm_set1_epi64x(0xFFFF00000000));
    const __m128i three =
        _mm_or_si128(_mm_or_si128(first, _mm_slli_epi64(second, 8)), _mm_slli_epi64(third, 16));
    const __m128i eight = _mm_or_si128(three, inEight_);
    const __m128i four = _mm_or_si128(_mm_slli_epi64(_mm_srli_epi64(digits, 48), 8), inFour_);
    storeLanes(to, eight, four);
    storeLanes(to + 12, _mm_unpackhi_epi64(eight, eight), _mm_unpackhi_epi64(four, four));
  }

 private:
  static void storeLanes(char* to, __m128i eight, __m128i four) noexcept {
    const int last = _mm_cvtsi128_si32(four);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), eight);
    std::memcpy(to + 8, &last, sizeof last);
  }

  __m128i inEight_, inFour_;
};

/// The values of sixteen digits; false when one of them is none.
bool valuesOf(__m128i digits, __m128i& values) noexcept {
  const __m128i decimal = _mm_sub_epi8(digits, _mm_set1_epi8('0'));
  const __m128i lower = _mm_or_si128(digits, _mm_set1_epi8(0x20));
  const __m128i letter = _mm_sub_epi8(lower, _mm_set1_epi8('a'));
  const __m128i isDecimal = atMost(decimal, 9), isLetter = atMost(letter, 5);
  const __m128i letterValue = _mm_add_epi8(letter, _mm_set1_epi8(10));
  values = _mm_or_si128(_mm_and_si128(isDecimal, decimal), _mm_and_si128(isLetter, letterValue));
  return _mm_movemask_epi8(_mm_or_si128(isDecimal, isLetter)) == 0xFFFF;
}

/// The bytes that eight pairs of values mean, each in the low half of its 16-bit lane.
__m128i joined(__m128i values) noexcept {
  const __m128i both = _mm_or_si128(_mm_slli_epi16(values, 4), _mm_srli_epi16(values, 8));
  return _mm_and_si128(both, _mm_set1_epi16(0xFF));
}

}  // namespace

void encode(const unsigned char* bytes, std::size_t size, bool upper, char* to) noexcept {
  const Encoder encoder(upper);
  for (; size >= 16; size -= 16, bytes += 16, to += 32) {
    const Digits digits = encoder.digitsOf(load(bytes));
    store(to, digits.first);
    store(to + 16, digits.second);
  }
  plain::encode(bytes, size, upper, to);
}

void encodeSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper,
                     char* to) noexcept {
  const Encoder encoder(upper);
  const Spreader spreader(separator);
  for (; size >= 16; size -= 16, bytes += 16, to += 48) {
    const Digits digits = encoder.digitsOf(load(bytes));
    spreader.store(to, digits.first);
    spreader.store(to + 24, digits.second);
  }
  plain::encodeSeparated(bytes, size, separator, upper, to);
}

void decode(Decoding& decoding) noexcept {
  Decoding at = decoding;
  for (__m128i first, second; at.end - at.text >= 32; at.text += 32, at.bytes += 16) {
    if (!valuesOf(load(at.text), first) || !valuesOf(load(at.text + 16), second)) break;
    store(at.bytes, _mm_packus_epi16(joined(first), joined(second)));
  }
  decoding = at;
  plain::decode(decoding);
}

}  // namespace kes::hexloops::best
