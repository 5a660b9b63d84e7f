#include "Fixups.h"

#include <stdexcept>

namespace loader {

namespace {

// A byte of either language is an operation in its upper half and a small operand in its lower half.
enum Rebase : std::uint8_t {
  RebaseDone = 0x00,
  RebaseSetType = 0x10,
  RebaseSetPlace = 0x20,
  RebaseSkip = 0x30,
  RebaseSkipPointers = 0x40,
  RebaseSome = 0x50,
  RebaseMany = 0x60,
  RebaseOneAndSkip = 0x70,
  RebaseManyAndSkip = 0x80,
};

enum Bind : std::uint8_t {
  BindDone = 0x00,
  BindSetLibrary = 0x10,
  BindSetLibraryLong = 0x20,
  BindSetLibrarySpecial = 0x30,
  BindSetSymbol = 0x40,
  BindSetType = 0x50,
  BindSetAddend = 0x60,
  BindSetPlace = 0x70,
  BindSkip = 0x80,
  BindOne = 0x90,
  BindOneAndSkip = 0xA0,
  BindOneAndSkipPointers = 0xB0,
  BindManyAndSkip = 0xC0,
};

constexpr std::uint64_t pointer = 8;

class Reader {
 public:
  Reader(const std::uint8_t* begin, const std::uint8_t* end) : at_(begin), end_(end) {}

  bool atEnd() const { return at_ == end_; }

  std::uint8_t byte() {
    if (at_ == end_) throw std::runtime_error("a list of fixups ends too early");
    return *at_++;
  }

  std::uint64_t number() {
    std::uint64_t value = 0;
    unsigned shift = 0;
    std::uint8_t next = 0;
    do {
      next = byte();
      value |= std::uint64_t{next & 0x7FU} << shift;
      shift += 7;
    } while ((next & 0x80) != 0);
    return value;
  }

  std::int64_t signedNumber() {
    const std::uint8_t* const begin = at_;
    auto value = static_cast<std::int64_t>(number());
    const unsigned bits = 7 * static_cast<unsigned>(at_ - begin);
    if (bits < 64 && (at_[-1] & 0x40) != 0) value -= std::int64_t{1} << bits;
    return value;
  }

  std::string text() {
    std::string value;
    while (const std::uint8_t next = byte()) value += static_cast<char>(next);
    return value;
  }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

}  // namespace

std::string callName(const std::string& linkerName) {
  return linkerName.substr(1, linkerName.find('$', 1) - 1);
}

void forEachRebase(const std::uint8_t* code, const std::uint8_t* end,
                   const std::function<void(unsigned, std::uint64_t)>& place) {
  Reader reader(code, end);
  unsigned segment = 0;
  std::uint64_t offset = 0;
  const auto repeat = [&](std::uint64_t count, std::uint64_t gap) {
    for (; count > 0; --count, offset += pointer + gap) place(segment, offset);
  };
  while (!reader.atEnd()) {
    const std::uint8_t next = reader.byte(), operand = next & 0x0F;
    switch (next & 0xF0) {
      case RebaseDone:
        return;
      case RebaseSetType:
        break;
      case RebaseSetPlace:
        segment = operand, offset = reader.number();
        break;
      case RebaseSkip:
        offset += reader.number();
        break;
      case RebaseSkipPointers:
        offset += operand * pointer;
        break;
      case RebaseSome:
      case RebaseMany:
        repeat((next & 0xF0) == RebaseSome ? operand : reader.number(), 0);
        break;
      case RebaseOneAndSkip:
        repeat(1, reader.number());
        break;
      case RebaseManyAndSkip: {
        const std::uint64_t count = reader.number();
        repeat(count, reader.number());
        break;
      }
      default:
        throw std::runtime_error("unknown rebase operation");
    }
  }
}

namespace {

struct BindState {
  unsigned segment = 0;
  std::uint64_t offset = 0;
  std::string symbol;
  std::int64_t addend = 0;
};

/// The operations that bind nothing.
bool setUpBind(std::uint8_t operation, std::uint8_t operand, Reader& reader, BindState& state) {
  switch (operation) {
    case BindDone:  // ends one entry of a lazy list, and pads the others
    case BindSetLibrary:
    case BindSetLibrarySpecial:
    case BindSetType:
      return true;
    case BindSetLibraryLong:
      reader.number();
      return true;
    case BindSetSymbol:
      state.symbol = callName(reader.text());
      return true;
    case BindSetAddend:
      state.addend = reader.signedNumber();
      return true;
    case BindSetPlace:
      state.segment = operand, state.offset = reader.number();
      return true;
    case BindSkip:
      state.offset += reader.number();
      return true;
    default:
      return false;
  }
}

}  // namespace

void forEachBind(
    const std::uint8_t* code, const std::uint8_t* end,
    const std::function<void(unsigned, std::uint64_t, const std::string&, std::int64_t)>& place) {
  Reader reader(code, end);
  BindState state;
  const auto repeat = [&](std::uint64_t count, std::uint64_t gap) {
    for (; count > 0; --count, state.offset += pointer + gap) {
      place(state.segment, state.offset, state.symbol, state.addend);
    }
  };
  while (!reader.atEnd()) {
    const std::uint8_t next = reader.byte(), operation = next & 0xF0, operand = next & 0x0F;
    if (setUpBind(operation, operand, reader, state)) continue;
    switch (operation) {
      case BindOne:
        repeat(1, 0);
        break;
      case BindOneAndSkip:
        repeat(1, reader.number());
        break;
      case BindOneAndSkipPointers:
        repeat(1, operand * pointer);
        break;
      case BindManyAndSkip: {
        const std::uint64_t count = reader.number();
        repeat(count, reader.number());
        break;
      }
      default:
        throw std::runtime_error("unknown bind operation");
    }
  }
}

}  // namespace loader
