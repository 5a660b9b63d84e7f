#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>

#include "support/PcapFile.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t capacity = 4096;

/// A capture's packets as its readers see them: cut to the snapshot length that its header promises.
std::vector<std::string> packetsOf(const std::string& file) {
  const PcapFile capture = PcapFile::parse(readFile(file));
  std::vector<std::string> packets = capture.packets();
  for (std::string& packet : packets)
    packet.resize(std::min<std::size_t>(packet.size(), capture.snapshotLength));
  return packets;
}

/// One capture on its way through driver and tool into a second one.
class Replay {
 public:
  Replay(const std::string& source, const std::string& oversize)
      : source_(source),
        refuses_(oversize == "refuse"),
        driver_({"--replay", source, "--oversize", oversize}),
        tool_(kestrace({"-dump", target_}),
              {.in = keyboard_.reader, .environment = {"KES_IOREGISTRY=" + driver_.directory()}}) {}

  /// Waits until every packet has come through, ends the tool and compares.
  void finish() {
    const std::string announced = announcements();
    EXPECT_TRUE(tool_.waitForErr(announced)) << source_;
    keyboard_.write("Q");
    EXPECT_EQ(tool_.wait(), 0) << source_;
    EXPECT_EQ(tool_.err(), announced) << source_;
    EXPECT_TRUE(PcapFile::parse(readFile(target_)).packets() == stored()) << source_;
    EXPECT_EQ(PcapFile::parse(readFile(target_)).torn, 0U) << source_;
    Process tcpdump({"tcpdump", "-r", target_, "-w", "-"});
    EXPECT_EQ(tcpdump.wait(), 0) << tcpdump.err();
    EXPECT_EQ(PcapFile::parse(tcpdump.out()).packets().size(), stored().size()) << source_;
  }

  std::string capture() const { return readFile(target_); }

 private:
  /// What the tool says of the packets, by the rules for their lengths.
  std::string announcements() const {
    std::string lines;
    for (const std::string& packet : packets_) {
      if (packet.empty()) continue;
      lines += refuses_ && packet.size() > capacity
                   ? "GetPacket failed: ret=0xe00002db.\n\n"
                   : "GetPacket ok len =" + std::to_string(std::min(packet.size(), capacity)) + '\n';
    }
    return lines;
  }

  std::vector<std::string> stored() const {
    std::vector<std::string> all;
    for (const std::string& packet : packets_) {
      if (packet.size() >= 3 && !(refuses_ && packet.size() > capacity))
        all.push_back(packet.substr(0, capacity));
    }
    return all;
  }

  TempDir dir_;
  std::string source_, target_ = dir_ / "capture.pcap";
  bool refuses_;
  std::vector<std::string> packets_ = packetsOf(source_);
  TestPipe keyboard_;
  DriverProcess driver_;
  Process tool_;
};

/// The upper bits of the link type say how long a frame's check sum is.
bool isEthernet(const std::string& file) {
  try {
    const PcapFile capture = PcapFile::parse(readFile(file));
    return capture.hasHeader && (capture.linkType & 0x03FF'FFFF) == 1;
  } catch (const std::exception&) {
    return false;
  }
}

std::size_t countByTshark(const std::string& file) {
  Process tshark({"tshark", "-r", file, "-T", "fields", "-e", "frame.number"});
  EXPECT_EQ(tshark.wait(), 0) << tshark.err();
  return static_cast<std::size_t>(std::count(tshark.out().begin(), tshark.out().end(), '\n'));
}

/// Replays the files, many at a time as each is bound to a hundred packets a second, and shows what came
/// out to tshark: all of it as one capture, because tshark is slow to start.
void replayAll(const std::vector<std::string>& files, const std::string& oversize) {
  std::string all;
  std::size_t records = 0;
  for (std::size_t first = 0; first < files.size(); first += 16) {
    std::vector<std::unique_ptr<Replay>> batch;
    for (std::size_t i = first; i < std::min(first + 16, files.size()); ++i) {
      batch.push_back(std::make_unique<Replay>(files[i], oversize));
    }
    for (const auto& replay : batch) {
      replay->finish();
      const std::string capture = replay->capture();
      records += PcapFile::parse(capture).records.size();
      all += all.empty() ? capture : capture.substr(24);
    }
  }
  const TempDir dir;
  writeFile(dir / "all.pcap", all);
  EXPECT_EQ(countByTshark(dir / "all.pcap"), records);
}

std::vector<std::string> ethernetCapturesIn(const std::string& folder) {
  std::vector<std::string> files;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file() && isEthernet(entry.path().string())) files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

/// A capture with packets of these lengths.
void writeCapture(const std::string& path, const std::vector<std::size_t>& lengths) {
  const auto word = [](std::uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
  std::string bytes =
      word(0xA1B2C3D4) + std::string("\2\0\4\0", 4) + word(0) + word(0) + word(65535) + word(1);
  for (std::size_t length : lengths) {
    const auto size = static_cast<std::uint32_t>(length);
    bytes += word(1) + word(2) + word(size) + word(size);
    for (std::size_t i = 0; i < length; ++i) bytes += static_cast<char>(length + i);
  }
  writeFile(path, bytes);
}

TEST(ReplayedCaptureTest, TheShippedSamplesComeThroughWhole) {
  const auto files = ethernetCapturesIn(SAMPLES);
  ASSERT_FALSE(files.empty());
  replayAll(files, "cut");
}

TEST(ReplayedCaptureTest, PacketsOfEveryBorderLengthFollowTheirRules) {
  const TempDir dir;
  writeCapture(dir / "lengths.pcap", {1, 2, 3, 0, 4, 4095, 4096, 4097, 5, 9000, 60});
  replayAll({dir / "lengths.pcap"}, "cut");
  replayAll({dir / "lengths.pcap"}, "refuse");
}

TEST(ReplayedCaptureTest, EveryCaptureOfTheCollectionComesThroughWhole) {
  const char* folder = std::getenv("KES_CAPTURES");
  if (folder == nullptr) GTEST_SKIP() << "KES_CAPTURES names no collection of captures";
  const auto files = ethernetCapturesIn(folder);
  ASSERT_FALSE(files.empty());
  replayAll(files, "cut");
}

TEST(ReplayedCaptureTest, ACaptureOfAnotherKindIsNotServed) {
  const TempDir dir;
  writeCapture(dir / "raw.pcap", {60});
  std::string bytes = readFile(dir / "raw.pcap");
  bytes[20] = 101;
  writeFile(dir / "raw.pcap", bytes);
  EXPECT_FALSE(isEthernet(dir / "raw.pcap"));
  EXPECT_THROW(DriverProcess({"--replay", dir / "raw.pcap"}), std::runtime_error);
}

}  // namespace
}  // namespace kes::test
