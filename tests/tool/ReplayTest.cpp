#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>

#include "support/CaptureFiles.h"
#include "support/PcapFile.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t capacity = 4096;

/// What a driver says that starts to serve this capture: nothing unless packets are missing bytes.
std::string noticeOf(const std::string& file) {
  const PcapFile capture = PcapFile::parse(readFile(file));
  const auto isShortened = [](const PcapRecord& packet) { return packet.bytes.size() < packet.wireLength; };
  const auto count = std::count_if(capture.records.begin(), capture.records.end(), isShortened);
  if (count == 0) return "";
  return file + ": " + std::to_string(count) + " of " + std::to_string(capture.records.size()) +
         " packets are shorter than they were on the wire\n";
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
    EXPECT_TRUE(driver_.waitForOutput("It is not the driver.\n" + noticeOf(source_) + "serving"))
        << driver_.output();
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
  std::vector<std::string> packets_ = PcapFile::parse(readFile(source_)).packets();
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

/// Packets of these lengths.
std::vector<Packet> packetsOf(const std::vector<std::size_t>& lengths) {
  std::vector<Packet> packets;
  for (const std::size_t length : lengths)
    packets.push_back(CaptureFiles::packet(length, static_cast<std::uint8_t>(length)));
  return packets;
}

TEST(ReplayedCaptureTest, TheShippedSamplesComeThroughWhole) {
  const auto files = ethernetCapturesIn(SAMPLES);
  ASSERT_FALSE(files.empty());
  replayAll(files, "cut");
}

TEST(ReplayedCaptureTest, PacketsOfEveryBorderLengthFollowTheirRules) {
  const TempDir dir;
  writeFile(dir / "lengths.pcap",
            CaptureFiles::pcap(packetsOf({1, 2, 3, 0, 4, 4095, 4096, 4097, 5, 9000, 60})));
  replayAll({dir / "lengths.pcap"}, "cut");
  replayAll({dir / "lengths.pcap"}, "refuse");
}

TEST(ReplayedCaptureTest, PacketsBeyondTheFilesSnapshotLengthComeThroughWholeAndCutOnesAreCounted) {
  const TempDir dir;
  writeFile(dir / "long.pcap",
            CaptureFiles::pcap(packetsOf({60, 1514, 64, 65, 4097}), {.snapshotLength = 64}) +
                CaptureFiles::record(CaptureFiles::packet(96), 1514));
  replayAll({dir / "long.pcap"}, "cut");
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
  writeFile(dir / "raw.pcap", CaptureFiles::pcap(packetsOf({60}), {.linkType = 101}));
  EXPECT_FALSE(isEthernet(dir / "raw.pcap"));
  EXPECT_THROW(DriverProcess({"--replay", dir / "raw.pcap"}), std::runtime_error);
}

}  // namespace
}  // namespace kes::test
