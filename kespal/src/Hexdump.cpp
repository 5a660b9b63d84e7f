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
  static constexpr std::size_t longest = 16;
  struct Unit {
    char text[longest];
    std::size_t size;
  };

  Units(const std::ostream& stream, const std::string& separator) {
    std::ostringstream formatter;
    formatter.imbue(stream.getloc());
    formatter.flags(stream.flags());
    formatter.fill(stream.fill());
    for (unsigned value = 0; value < units_.size(); ++value) {
      formatter.str("");
      writeByte(formatter, static_cast<unsigned char>(value));
      set(units_[value], formatter.str() + separator);
    }
  }

  /// False when a text is too long for its unit.
  bool fit() const { return fit_; }
  const Unit& of(unsigned char byte) const { return units_[byte]; }

 private:
  void set(Unit& unit, const std::string& text) {
    unit = {};
    unit.size = text.size();
    if (text.size() > longest) fit_ = false;
    std::memcpy(unit.text, text.data(), std::min(text.size(), longest));
  }

  std::array<Unit, 256> units_;
  bool fit_ = true;
};

void writeUnits(std::ostream& stream, const Hexdump& dump, const Units& units) {
  const std::size_t perLine = lineLength(dump);
  std::array<char, 8192> text;
  std::size_t end = 0;
  for (std::size_t index = 0; index < dump.size;) {
    const std::size_t next = index + std::min(perLine, dump.size - index);
    for (; index < next; ++index) {
      if (end > text.size() - Units::longest) {
        stream.write(text.data(), static_cast<std::streamsize>(end));
        end = 0;
      }
      // A whole unit is copied, whatever its size: one move of a known length.
      const Units::Unit& unit = units.of(dump.data[index]);
      std::memcpy(text.data() + end, unit.text, sizeof unit.text);
      end += unit.size;
    }
    end -= dump.separator.size();
    if (index != dump.size) text[end++] = '\n';
  }
  stream.write(text.data(), static_cast<std::streamsize>(end));
  stream.width(0);
}

// From this size on the units pay for themselves.
constexpr std::size_t large = 512;

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Hexdump& dump) {
  if (dump.data == nullptr) return stream << "nullptr";
  const HexFormat format(stream);
  if (dump.size >= large) {
    const Units units(stream, dump.separator);
    if (units.fit()) {
      writeUnits(stream, dump, units);
      return stream;
    }
  }
  writeEach(stream, dump);
  return stream;
}

}  // namespace kes
