#include "kespal/Hexdump.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace kes {

namespace {

/// Makes a stream write hexadecimal numbers filled with zeros, and gives it back as it was.
class HexFormat {
 public:
  explicit HexFormat(std::ostream& stream)
      : stream_(stream), fill_(stream.fill('0')), flags_(stream.setf(std::ios::hex, std::ios::basefield)) {}
  ~HexFormat() {
    stream_.flags(flags_);
    stream_.fill(fill_);
  }
  HexFormat(const HexFormat&) = delete;
  HexFormat& operator=(const HexFormat&) = delete;

 private:
  std::ostream& stream_;
  char fill_;
  std::ios::fmtflags flags_;
};

std::size_t lineLength(const Hexdump& dump) {
  return dump.perLine > 0 ? static_cast<std::size_t>(dump.perLine) : dump.size;
}

void writeByte(std::ostream& stream, unsigned char byte) {
  stream << std::setw(2) << static_cast<unsigned>(byte);
}

void writeEach(std::ostream& stream, const Hexdump& dump) {
  const std::size_t perLine = lineLength(dump);
  for (std::size_t index = 0; index < dump.size; ++index) {
    if (index != 0) stream << (index % perLine == 0 ? "\n" : dump.separator);
    writeByte(stream, dump.data[index]);
  }
}

/// What every byte value becomes in one dump: its digits, and the separator behind them. The stream itself
/// knows how its flags and locale write a value, so it is asked, once per value.
class Units {
 public:
  static constexpr std::size_t widest = 16;

  Units(const std::ostream& stream, const std::string& separator) {
    std::ostringstream formatter;
    formatter.imbue(stream.getloc());
    formatter.flags(stream.flags());
    formatter.fill(stream.fill());
    for (unsigned value = 0; value < text_.size(); ++value) {
      formatter.str("");
      writeByte(formatter, static_cast<unsigned char>(value));
      const std::string unit = formatter.str() + separator;
      unit.copy(text_[value], widest);
      size_[value] = static_cast<unsigned char>(std::min<std::size_t>(unit.size(), 255));
      longest_ = std::max(longest_, unit.size());
    }
  }

  /// The size of the longest one. Only units up to the widest can be written.
  std::size_t longest() const { return longest_; }

  /// Writes the unit of a byte and, to move a known number of characters, whatever lies behind it.
  template <std::size_t Width>
  char* write(char* to, unsigned char byte) const {
    std::memcpy(to, text_[byte], Width);
    return to + size_[byte];
  }

 private:
  std::array<char[widest], 256> text_{};
  std::array<unsigned char, 256> size_;
  std::size_t longest_ = 0;
};

/// Text on its way to the stream, which gets it in large pieces.
class Pieces {
 public:
  explicit Pieces(std::ostream& stream) : stream_(stream) {}

  template <std::size_t Width>
  void append(const unsigned char* bytes, std::size_t count, const Units& units) {
    while (count != 0) {
      if (room() < Units::widest) flush();
      const std::size_t now = std::min(count, room() / Units::widest);
      char* to = end_;
      for (const unsigned char* end = bytes + now; bytes != end; ++bytes) to = units.write<Width>(to, *bytes);
      end_ = to;
      count -= now;
    }
  }
  void append(char c) { *end_++ = c; }
  void takeBack(std::size_t count) { end_ -= count; }

  void flush() {
    stream_.write(text_.data(), end_ - text_.data());
    end_ = text_.data();
  }

 private:
  // One character more is kept for the end of a line.
  std::size_t room() const { return static_cast<std::size_t>(text_.data() + text_.size() - 1 - end_); }

  std::ostream& stream_;
  std::array<char, 8192> text_;
  char* end_ = text_.data();
};

template <std::size_t Width>
void writeUnits(std::ostream& stream, const Hexdump& dump, const Units& units) {
  Pieces pieces(stream);
  const std::size_t perLine = lineLength(dump);
  for (std::size_t index = 0; index < dump.size;) {
    const std::size_t count = std::min(perLine, dump.size - index);
    pieces.append<Width>(dump.data + index, count, units);
    pieces.takeBack(dump.separator.size());
    index += count;
    if (index != dump.size) pieces.append('\n');
  }
  pieces.flush();
  stream.width(0);
}

// From this size on the units pay for themselves.
constexpr std::size_t large = 512;

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Hexdump& dump) {
  if (dump.data == nullptr) return stream << "nullptr";
  const HexFormat format(stream);
  if (dump.size < large) {
    writeEach(stream, dump);
    return stream;
  }
  const Units units(stream, dump.separator);
  if (units.longest() <= 4) {
    writeUnits<4>(stream, dump, units);
  } else if (units.longest() <= Units::widest) {
    writeUnits<Units::widest>(stream, dump, units);
  } else {
    writeEach(stream, dump);
  }
  return stream;
}

}  // namespace kes
