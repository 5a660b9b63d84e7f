#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace loader {

struct Segment {
  std::string name;
  std::uint64_t address, size, offset, fileSize;
  std::uint32_t protection;
};

enum class SectionKind : std::uint8_t {
  InitFunctions = 0x09,
  InitOffsets = 0x16,
  ThreadLocalData = 0x11,
  ThreadLocalZeroes = 0x12,
  ThreadLocalDescriptors = 0x13,
};

struct Section {
  std::string name;
  std::uint64_t address, size;
  SectionKind kind;
};

struct Range {
  std::uint32_t offset = 0, size = 0;
};

/// A Mach-O program or library for this processor as it lies in its file; of a universal file, that part.
/// Addresses are those of the file. Throws std::runtime_error for everything it cannot read.
class MachFile {
 public:
  explicit MachFile(const std::string& path);

  const std::vector<Segment>& segments() const { return segments_; }
  const std::vector<Section>& sections() const { return sections_; }
  /// The external symbols that the file defines, without the leading underscore.
  const std::map<std::string, std::uint64_t>& exports() const { return exports_; }
  /// Where the main function lies, as an offset from the first mapped segment; 0 in a library.
  std::uint64_t entry() const { return entry_; }

  const std::uint8_t* bytes(std::uint64_t offset, std::uint64_t size) const;

  Range rebases, binds, weakBinds, lazyBinds;
  /// What stands in the place of all of these in a file of the younger form.
  Range chains;

 private:
  template <typename T>
  T read(std::uint64_t offset) const {
    T value;
    std::memcpy(&value, bytes(offset, sizeof value), sizeof value);
    return value;
  }
  std::string text(std::uint64_t offset, std::uint64_t limit) const;

  void readCommand(std::uint64_t offset);
  void readSegment(std::uint64_t offset);
  void readSymbols(std::uint64_t offset);
  void readFixups(std::uint64_t offset);

  std::vector<std::uint8_t> content_;
  std::vector<Segment> segments_;
  std::vector<Section> sections_;
  std::map<std::string, std::uint64_t> exports_;
  std::uint64_t entry_ = 0;
};

}  // namespace loader
