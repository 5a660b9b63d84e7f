#include "kespal/Hexdump.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <span>
#include <string_view>
#include <utility>

#include "HexLoops.h"

namespace kes {

namespace {

using Bytes = std::span<const unsigned char>;

/// Text on its way to the stream, which gets it in large pieces and past its own formats: so they stay as
/// they are, and no flag, fill or locale makes anything but two digits of a byte.
class Pieces {
 public:
  explicit Pieces(std::ostream& stream) : stream_(stream) {}

  /// The place of the next `size` characters, at most `most`, which are to be written there.
  char* take(std::size_t size) {
    if (size > static_cast<std::size_t>(text_.data() + text_.size() - end_)) flush();
    return std::exchange(end_, end_ + size);
  }
  /// Gives the last ones of what was just taken back.
  void takeBack(std::size_t size) { end_ -= size; }

  void append(std::string_view text) {
    for (; text.size() > most; text.remove_prefix(most)) text.copy(take(most), most);
    text.copy(take(text.size()), text.size());
  }

  void flush() {
    stream_.write(text_.data(), end_ - text_.data());
    end_ = text_.data();
  }

 private:
  static constexpr std::size_t most = 4096;

  std::ostream& stream_;
  std::array<char, 2 * most> text_;
  char* end_ = text_.data();
};

constexpr std::size_t atOnce = 256;

/// Bytes of a line, at most `atOnce`, with the separator between two. Whether it also stands before the first
/// or behind the last one is the caller's care.
void append(Pieces& pieces, Bytes bytes, std::string_view separator, bool upper) {
  if (separator.empty()) {
    hexloops::best::encode(bytes.data(), bytes.size(), upper, pieces.take(2 * bytes.size()));
    return;
  }
  if (separator.size() == 1) {
    char* const to = pieces.take(3 * bytes.size());
    hexloops::best::encodeSeparated(bytes.data(), bytes.size(), separator.front(), upper, to);
    pieces.takeBack(1);
    return;
  }
  std::array<char, 2 * atOnce> digits;
  hexloops::best::encode(bytes.data(), bytes.size(), upper, digits.data());
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (at != 0) pieces.append(separator);
    pieces.append({&digits[2 * at], 2});
  }
}

void appendLine(Pieces& pieces, Bytes line, std::string_view separator, bool upper) {
  for (std::size_t at = 0; at < line.size(); at += atOnce) {
    if (at != 0) pieces.append(separator);
    append(pieces, line.subspan(at, std::min(atOnce, line.size() - at)), separator, upper);
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Hexdump& dump) {
  if (dump.data == nullptr) return stream << "nullptr";
  if (dump.size == 0) return stream;
  stream.width(0);
  const bool upper = (stream.flags() & std::ios::uppercase) != 0;
  const Bytes bytes(dump.data, dump.size);
  const std::size_t perLine = dump.perLine > 0 ? static_cast<std::size_t>(dump.perLine) : dump.size;
  Pieces pieces(stream);
  for (std::size_t at = 0; at < bytes.size(); at += perLine) {
    if (at != 0) pieces.append("\n");
    appendLine(pieces, bytes.subspan(at, std::min(perLine, bytes.size() - at)), dump.separator, upper);
  }
  pieces.flush();
  return stream;
}

}  // namespace kes
