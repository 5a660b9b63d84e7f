#include "support/PcapFile.h"

#include <stdexcept>

namespace kes::test {

namespace {

class Words {
 public:
  Words(const std::string& bytes, bool bigEndian) : bytes_(bytes), bigEndian_(bigEndian) {}

  std::uint32_t at(std::size_t offset) const {
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      const std::size_t place = bigEndian_ ? i : 3 - i;
      word = word << 8 | static_cast<unsigned char>(bytes_[offset + place]);
    }
    return word;
  }

 private:
  const std::string& bytes_;
  bool bigEndian_;
};

bool isMagic(std::uint32_t word) { return word == 0xA1B2C3D4 || word == 0xA1B23C4D; }

}  // namespace

PcapFile PcapFile::parse(const std::string& bytes) {
  constexpr std::size_t fileHeader = 24, recordHeader = 16;
  PcapFile file;
  if (bytes.size() < fileHeader) {
    file.torn = bytes.size();
    return file;
  }
  const bool bigEndian = !isMagic(Words(bytes, false).at(0));
  const Words words(bytes, bigEndian);
  if (!isMagic(words.at(0))) throw std::runtime_error("no capture file");
  file.hasHeader = true;
  file.snapshotLength = words.at(16);
  file.linkType = words.at(20);
  std::size_t at = fileHeader;
  while (bytes.size() - at >= recordHeader) {
    const std::size_t length = words.at(at + 8);
    if (bytes.size() - at - recordHeader < length) break;
    file.records.push_back(
        {words.at(at), words.at(at + 4), words.at(at + 12), bytes.substr(at + recordHeader, length)});
    at += recordHeader + length;
  }
  file.torn = bytes.size() - at;
  return file;
}

std::vector<std::string> PcapFile::packets() const {
  std::vector<std::string> all;
  for (const PcapRecord& record : records) all.push_back(record.bytes);
  return all;
}

}  // namespace kes::test
