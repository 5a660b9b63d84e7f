// Every x86-64 processor has these instructions.
#include <emmintrin.h>

#include "HexLoops.h"

namespace kes::hexloops::vector {

namespace {

__m128i load(const void* from) noexcept { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }
void store(void* to, __m128i value) noexcept { _mm_storeu_si128(static_cast<__m128i*>(to), value); }

/// All bits of a byte where it is, unsigned, at most `most`.
__m128i atMost(__m128i bytes, char most) noexcept {
  return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(most)), bytes);
}

/// The digits of sixteen values from 0 to 15; `gap` lies between '9' and the first letter.
__m128i digitsOf(__m128i values, __m128i gap) noexcept {
  const __m128i letters = _mm_cmpgt_epi8(values, _mm_set1_epi8(9));
  return _mm_add_epi8(_mm_add_epi8(values, _mm_set1_epi8('0')), _mm_and_si128(letters, gap));
}

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
  const __m128i gap = _mm_set1_epi8(static_cast<char>((upper ? 'A' : 'a') - '9' - 1));
  const __m128i nibble = _mm_set1_epi8(0x0F);
  for (; size >= 16; size -= 16, bytes += 16, to += 32) {
    const __m128i block = load(bytes);
    const __m128i high = digitsOf(_mm_and_si128(_mm_srli_epi16(block, 4), nibble), gap);
    const __m128i low = digitsOf(_mm_and_si128(block, nibble), gap);
    store(to, _mm_unpacklo_epi8(high, low));
    store(to + 16, _mm_unpackhi_epi8(high, low));
  }
  plain::encode(bytes, size, upper, to);
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

}  // namespace kes::hexloops::vector
