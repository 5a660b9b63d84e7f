// For processors without loops of their own here.
#include "HexLoops.h"

namespace kes::hexloops::best {

void encode(const unsigned char* bytes, std::size_t size, bool upper, char* to) noexcept {
  plain::encode(bytes, size, upper, to);
}

void encodeSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper,
                     char* to) noexcept {
  plain::encodeSeparated(bytes, size, separator, upper, to);
}

void decode(Decoding& decoding) noexcept { plain::decode(decoding); }

}  // namespace kes::hexloops::best
