#include "Chains.h"

#include <cstring>
#include <stdexcept>
#include <vector>

#include "Fixups.h"

namespace loader {

namespace {

/// How a pointer that stays in the image holds its target.
enum PointerFormat : std::uint16_t { TargetIsAddress = 2, TargetIsOffset = 6 };

enum ImportFormat : std::uint32_t { Import = 1, ImportAndAddend = 2, LongImportAndAddend = 3 };

constexpr std::uint16_t noChain = 0xFFFF;
constexpr std::uint64_t step = 4;  // the distance to the next pointer counts these

/// So many bits of a value, from one on.
constexpr std::uint64_t bits(std::uint64_t value, unsigned first, unsigned count) {
  return value >> first & ((std::uint64_t{1} << count) - 1);
}

template <typename T>
T read(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(T))
    throw std::runtime_error("a list of chains ends too early");
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

std::runtime_error notUnderstood(const char* what, unsigned format) {
  return std::runtime_error(std::string("chained fixups with ") + what + " of format " +
                            std::to_string(format) + " are not understood");
}

struct ImportedName {
  std::string symbol;
  bool isWeak;
  std::int64_t addend;
};

std::string textAt(std::span<const std::uint8_t> table, std::uint64_t offset) {
  std::string text;
  while (const auto next = read<char>(table, offset++)) text += next;
  return text;
}

/// The names that the pointers know by their numbers. Those of no certain library are weak.
std::vector<ImportedName> importedNames(std::span<const std::uint8_t> table) {
  const auto first = read<std::uint32_t>(table, 8), texts = read<std::uint32_t>(table, 12);
  const auto count = read<std::uint32_t>(table, 16), format = read<std::uint32_t>(table, 20);
  if (const auto compression = read<std::uint32_t>(table, 24); compression != 0) {
    throw notUnderstood("names", compression);
  }
  if (format < Import || format > LongImportAndAddend) throw notUnderstood("imports", format);
  constexpr std::int8_t anyLibrary = -3;
  std::vector<ImportedName> names;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (format == LongImportAndAddend) {
      const auto entry = read<std::uint64_t>(table, first + 16 * i);
      names.push_back({callName(textAt(table, texts + bits(entry, 32, 32))),
                       static_cast<std::int16_t>(bits(entry, 0, 16)) == anyLibrary,
                       read<std::int64_t>(table, first + 16 * i + 8)});
    } else {
      const std::uint64_t size = format == ImportAndAddend ? 8 : 4;
      const auto entry = read<std::uint32_t>(table, first + size * i);
      names.push_back({callName(textAt(table, texts + bits(entry, 9, 23))),
                       static_cast<std::int8_t>(bits(entry, 0, 8)) == anyLibrary,
                       size == 8 ? read<std::int32_t>(table, first + size * i + 4) : 0});
    }
  }
  return names;
}

/// A pointer as it lies in its chain.
class Link {
 public:
  explicit Link(std::uint64_t value) : value_(value) {}

  bool isImport() const { return bits(value_, 63, 1) != 0; }
  std::uint64_t distance() const { return step * bits(value_, 51, 12); }
  std::uint64_t import() const { return bits(value_, 0, 24); }
  std::uint64_t addend() const { return bits(value_, 24, 8); }
  std::uint64_t target() const { return bits(value_, 0, 36); }
  std::uint64_t highestByte() const { return bits(value_, 36, 8) << 56; }

 private:
  std::uint64_t value_;
};

/// Calls `visit(place, format)` for the first pointer of every chain: one in each page that has any.
template <typename Visit>
void forEachChain(std::span<const std::uint8_t> table, const Visit& visit) {
  const auto starts = read<std::uint32_t>(table, 4), segments = read<std::uint32_t>(table, starts);
  for (std::uint64_t i = 0; i < segments; ++i) {
    const auto own = read<std::uint32_t>(table, starts + 4 + 4 * i);
    if (own == 0) continue;
    const std::uint64_t segment = std::uint64_t{starts} + own;
    const auto pageSize = read<std::uint16_t>(table, segment + 4),
               format = read<std::uint16_t>(table, segment + 6);
    if (format != TargetIsAddress && format != TargetIsOffset) throw notUnderstood("pointers", format);
    const auto offset = read<std::uint64_t>(table, segment + 8);
    const auto pages = read<std::uint16_t>(table, segment + 20);
    for (std::uint64_t page = 0; page < pages; ++page) {
      const auto start = read<std::uint16_t>(table, segment + 22 + 2 * page);
      if (start != noChain) visit(offset + page * pageSize + start, format);
    }
  }
}

}  // namespace

void applyChains(std::span<const std::uint8_t> table, const ChainedImage& image,
                 const ResolveChained& resolve) {
  const std::vector<ImportedName> names = importedNames(table);
  const auto valueOf = [&](const Link& link, std::uint16_t format) -> std::uint64_t {
    if (link.isImport()) {
      const ImportedName& name = names.at(link.import());
      return reinterpret_cast<std::uint64_t>(resolve(name.symbol, name.isWeak)) +
             static_cast<std::uint64_t>(name.addend) + link.addend();
    }
    const std::uint64_t offset = link.target() - (format == TargetIsAddress ? image.firstAddress : 0);
    return (reinterpret_cast<std::uint64_t>(image.memory) + offset) | link.highestByte();
  };
  forEachChain(table, [&](std::uint64_t place, std::uint16_t format) {
    std::uint64_t distance = 0;
    do {
      const Link link(read<std::uint64_t>({image.memory, image.size}, place));
      const std::uint64_t value = valueOf(link, format);
      std::memcpy(image.memory + place, &value, sizeof value);
      distance = link.distance();
      place += distance;
    } while (distance != 0);
  });
}

}  // namespace loader
