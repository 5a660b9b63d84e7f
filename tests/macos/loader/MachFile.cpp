#include "MachFile.h"

#include <fstream>
#include <iterator>

#include "Processor.h"

namespace loader {

namespace {

constexpr std::uint32_t machMagic = 0xFEEDFACF, universalMagic = 0xCAFEBABE;

enum Command : std::uint32_t {
  Symbols = 0x02,
  Segment64 = 0x19,
  Fixups = 0x22,
  FixupsOnly = 0x80000022,
  Main = 0x80000028,
  ChainedFixups = 0x80000034,
};

std::uint32_t bigEndian(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = value << 8 | bytes.at(offset + i);
  return value;
}

/// The image for this processor, of a file that holds several.
std::vector<std::uint8_t> ownImage(std::vector<std::uint8_t> bytes) {
  if (bytes.size() < 8 || bigEndian(bytes, 0) != universalMagic) return bytes;
  for (std::size_t entry = 8; entry < 8 + 20 * std::size_t{bigEndian(bytes, 4)}; entry += 20) {
    if (bigEndian(bytes, entry) != processorNumber) continue;
    const auto begin = bytes.begin() + bigEndian(bytes, entry + 8);
    return {begin, begin + bigEndian(bytes, entry + 12)};
  }
  throw std::runtime_error(std::string("the universal file has no image for ") + processorName);
}

std::vector<std::uint8_t> readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

MachFile::MachFile(const std::string& path) : content_(ownImage(readAll(path))) {
  if (read<std::uint32_t>(0) != machMagic || read<std::uint32_t>(4) != processorNumber) {
    throw std::runtime_error(path + " is no Mach-O file for " + processorName);
  }
  const auto count = read<std::uint32_t>(16);
  std::uint64_t offset = 32;
  for (std::uint32_t i = 0; i < count; ++i) {
    readCommand(offset);
    offset += read<std::uint32_t>(offset + 4);
  }
}

const std::uint8_t* MachFile::bytes(std::uint64_t offset, std::uint64_t size) const {
  if (offset + size > content_.size()) throw std::runtime_error("the file ends too early");
  return content_.data() + offset;
}

std::string MachFile::text(std::uint64_t offset, std::uint64_t limit) const {
  std::string result;
  for (; result.size() < limit; ++offset) {
    const char c = static_cast<char>(*bytes(offset, 1));
    if (c == '\0') break;
    result += c;
  }
  return result;
}

void MachFile::readCommand(std::uint64_t offset) {
  switch (read<std::uint32_t>(offset)) {
    case Segment64:
      return readSegment(offset);
    case Symbols:
      return readSymbols(offset);
    case Fixups:
    case FixupsOnly:
      return readFixups(offset);
    case Main:
      entry_ = read<std::uint64_t>(offset + 8);
      return;
    case ChainedFixups:
      chains = {read<std::uint32_t>(offset + 8), read<std::uint32_t>(offset + 12)};
      return;
    default:
      return;  // of no importance to running it
  }
}

void MachFile::readSegment(std::uint64_t offset) {
  const auto number = [&](std::uint64_t at) { return read<std::uint64_t>(offset + at); };
  segments_.push_back({text(offset + 8, 16), number(24), number(32), number(40), number(48),
                       read<std::uint32_t>(offset + 60)});
  const auto count = read<std::uint32_t>(offset + 64);
  for (std::uint64_t section = offset + 72, i = 0; i < count; section += 80, ++i) {
    sections_.push_back({text(section, 16), read<std::uint64_t>(section + 32),
                         read<std::uint64_t>(section + 40), SectionKind{read<std::uint8_t>(section + 64)}});
  }
}

void MachFile::readSymbols(std::uint64_t offset) {
  constexpr std::uint8_t debugging = 0xE0, privateExternal = 0x10, external = 0x01, kind = 0x0E,
                         inSection = 0x0E;
  std::uint64_t symbol = read<std::uint32_t>(offset + 8);
  const std::uint64_t names = read<std::uint32_t>(offset + 16);
  for (auto count = read<std::uint32_t>(offset + 12); count > 0; --count, symbol += 16) {
    const auto type = read<std::uint8_t>(symbol + 4);
    if ((type & (debugging | privateExternal)) != 0 || (type & external) == 0) continue;
    if ((type & kind) != inSection) continue;
    const std::string name = text(names + read<std::uint32_t>(symbol), content_.size());
    exports_[name.substr(1)] = read<std::uint64_t>(symbol + 8);
  }
}

void MachFile::readFixups(std::uint64_t offset) {
  for (Range* range : {&rebases, &binds, &weakBinds, &lazyBinds}) {
    *range = {read<std::uint32_t>(offset + 8), read<std::uint32_t>(offset + 12)};
    offset += 8;
  }
}

}  // namespace loader
