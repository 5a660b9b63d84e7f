#include "Replay.h"

#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>

#include "support/CaptureFiles.h"
#include "support/TempDir.h"

namespace kes::driver {
namespace {

using test::CaptureFiles;
using test::Packet;
using test::TempDir;
using test::writeFile;
using testing::HasSubstr;

class ReplayTest : public testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& content) {
    writeFile(directory_ / name, content);
    return directory_ / name;
  }
  static std::vector<Packet> all(Replay& replay, std::size_t limit = 1000) {
    std::vector<Packet> packets;
    while (packets.size() < limit) {
      const auto packet = replay.next();
      if (!packet) break;
      packets.emplace_back(packet->begin(), packet->end());
    }
    return packets;
  }
  static std::string errorOf(const std::vector<std::string>& files) {
    try {
      Replay replay(files, false);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  TempDir directory_;
  const std::vector<Packet> packets_{CaptureFiles::packet(60), CaptureFiles::packet(1514, 3),
                                     CaptureFiles::packet(1)};
};

TEST_F(ReplayTest, BothFormatsGiveTheirPacketsInOrder) {
  Replay classic({file("a.pcap", CaptureFiles::pcap(packets_))}, false);
  EXPECT_EQ(all(classic), packets_);
  Replay next({file("a.pcapng", CaptureFiles::pcapng(packets_))}, false);
  EXPECT_EQ(all(next), packets_);
}

TEST_F(ReplayTest, APacketIsAsLongAsTheFileHoldsItWhateverTheFilesHeaderPromises) {
  for (const std::uint32_t promised : {0u, 1u, 64u, 1513u, 65535u, 0x80000000u}) {
    Replay replay({file("a", CaptureFiles::pcap(packets_, {.snapshotLength = promised}))}, false);
    EXPECT_EQ(all(replay), packets_) << promised;
  }
}

TEST_F(ReplayTest, HowManyPacketsAreShorterThanOnTheWireIsSaidForEachFile) {
  const std::string cut = CaptureFiles::record(CaptureFiles::packet(60), 61);
  const std::string some = file("some", CaptureFiles::pcap(packets_) + cut + cut);
  const std::string none = file("none", CaptureFiles::pcap(packets_));
  const std::string broken = file("broken", CaptureFiles::pcap({}) + cut + "torn");
  const Replay replay({some, none, broken}, false);
  std::ostringstream out;
  replay.printShortened(out);
  EXPECT_EQ(out.str(), some + ": 2 of 5 packets are shorter than they were on the wire\n" + broken +
                           ": 1 of 1 packets are shorter than they were on the wire\n");
}

TEST_F(ReplayTest, FilesFollowEachOther) {
  Replay replay({file("a", CaptureFiles::pcap({{1}})), file("b", CaptureFiles::pcap({})),
                 file("c", CaptureFiles::pcapng({{2}, {3}}))},
                false);
  EXPECT_EQ(all(replay), (std::vector<Packet>{{1}, {2}, {3}}));
  EXPECT_EQ(replay.next(), std::nullopt);
}

TEST_F(ReplayTest, ALoopBeginsAgain) {
  Replay replay({file("a", CaptureFiles::pcap({{1}})), file("b", CaptureFiles::pcap({{2}}))}, true);
  EXPECT_EQ(all(replay, 5), (std::vector<Packet>{{1}, {2}, {1}, {2}, {1}}));
}

TEST_F(ReplayTest, ALoopOverNothingEnds) {
  Replay empty({file("a", CaptureFiles::pcap({}))}, true);
  EXPECT_TRUE(all(empty).empty());
  Replay hollow({file("b", CaptureFiles::pcap({{}, {}}))}, true);
  EXPECT_EQ(all(hollow).size(), 2u) << "packets without a byte are nothing to go round for";
  Replay none({}, true);
  EXPECT_TRUE(all(none).empty());
}

TEST_F(ReplayTest, AnotherLinkTypeIsRefusedByName) {
  EXPECT_THAT(errorOf({file("a", CaptureFiles::pcap({{1}}, {.linkType = 9}))}),
              HasSubstr("has link type PPP; only Ethernet (EN10MB) is served"));
  EXPECT_THAT(errorOf({file("b", CaptureFiles::pcap({{1}}, {.linkType = 113}))}), HasSubstr("LINUX_SLL"));
}

TEST_F(ReplayTest, WhatIsNoCaptureIsRefusedAtOnceEvenIfItComesLast) {
  const std::string good = file("good", CaptureFiles::pcap({{1}}));
  EXPECT_THAT(errorOf({good, directory_ / "missing"}), HasSubstr("No such file"));
  EXPECT_THAT(errorOf({good, file("text", "this is no capture of anything")}), HasSubstr("cannot replay"));
  EXPECT_THAT(errorOf({good, file("empty", "")}), HasSubstr("cannot replay"));
}

TEST_F(ReplayTest, AFileThatBreaksOffIsSaidAndTheNextOneFollows) {
  const std::string whole = CaptureFiles::pcap({{1}, {2, 2, 2, 2}});
  Replay replay({file("cut", whole.substr(0, whole.size() - 2)), file("next", CaptureFiles::pcap({{3}}))},
                false);
  testing::internal::CaptureStderr();
  EXPECT_EQ(all(replay), (std::vector<Packet>{{1}, {3}}));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("cut: truncated"));
}

}  // namespace
}  // namespace kes::driver
