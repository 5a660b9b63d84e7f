#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/EveryFailure.h"
#include "support/PcapFile.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"
#include "sys/Owner.h"

namespace {

using kes::test::Call;
using kes::test::expectSurvival;
using kes::test::PcapFile;
using kes::test::raises;
using kes::test::readFile;
using kes::test::Stage;
using kes::test::writeFile;

bool dump(const std::string& packet) {
  return DumpPacket(reinterpret_cast<const unsigned char*>(packet.data()),
                    static_cast<unsigned>(packet.size()), 0);
}

/// Whether a reader takes a file: whole records behind a header.
bool isReadable(const std::string& path) {
  const std::string content = readFile(path);
  std::size_t size = 24;
  const PcapFile file = PcapFile::parse(content);
  for (const auto& record : file.records) size += 16 + record.bytes.size();
  return file.hasHeader && content.size() == size;
}

TEST(EveryFailureOfCaptures, ACaptureIsStarted) {
  expectSurvival(
      {.operations = {"DumpOpen"},
       .play =
           [](Stage& stage) {
             const std::string path = stage / "capture";
             kes::time::ClockBase::init();
             const kes::sys::AtEnd whateverHappens([&] {
               const bool hasFailed = stage.isRefused(Call::writev) || stage.isRefused(Call::fstat) ||
                                      stage.isRefused(Call::open) || stage.isStarved();
               if (::access(path.c_str(), F_OK) != 0) return stage.check(hasFailed, "it is made");
               const std::string content = readFile(path);
               stage.check(isReadable(path) || (content.empty() && hasFailed), "no half header");
             });
             stage.act([&] { return DumpOpen(path.c_str(), 0); });
             stage.check((cap_types[0].opened == 1) == stage.succeeded(), "it counts as opened then");
             stage.check(DumpOpen(path.c_str(), 0) && isReadable(path), "a second try makes it");
             stage.check(dump("packet") && isReadable(path), "packets follow");
           },
       .mayLeaveFiles = true});
}

void expectPackets(const std::function<void(const std::string&)>& prepare) {
  expectSurvival({.operations = {"DumpPacket"},
                  .raises = {raises("kes::OsError")},
                  .play =
                      [&prepare](Stage& stage) {
                        const std::string path = stage / "capture";
                        kes::time::ClockBase::init();
                        DumpOpen(path.c_str(), 0);
                        dump("first");
                        prepare(path);
                        stage.act([] { return dump(std::string(6000, 'p')); });
                        // A write that was cut short and cannot be taken back: nothing is left to try.
                        if (::access(path.c_str(), F_OK) == 0 && !readFile(path).empty()) {
                          stage.check(isReadable(path), "a reader takes it");
                        }
                        stage.check(dump("last") && isReadable(path), "packets follow");
                        stage.check(PcapFile::parse(readFile(path)).packets().back() == "last", "whole ones");
                      },
                  .mayLeaveFiles = true,
                  .misused = {Call::clock_gettime}});
}

TEST(EveryFailureOfCaptures, APacketIsAppended) {
  expectPackets([](const std::string&) {});
}

TEST(EveryFailureOfCaptures, APacketFollowsTheFilesEmptying) {
  expectPackets([](const std::string& path) { writeFile(path, ""); });
}

TEST(EveryFailureOfCaptures, APacketFollowsTheFilesRemoval) {
  expectPackets([](const std::string& path) { ::unlink(path.c_str()); });
}

TEST(EveryFailureOfCaptures, APacketGoesIntoAPipe) {
  expectSurvival({.operations = {"DumpPacket", "DumpOpen"},
                  .raises = {raises("kes::OsError")},
                  .play = [](Stage& stage) {
                    const std::string path = stage / "pipe";
                    kes::time::ClockBase::init();
                    if (::mkfifo(path.c_str(), 0600) != 0) return;
                    const kes::sys::Descriptor reader(
                        ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
                    stage.act([&] { return DumpOpen(path.c_str(), 0); });
                    if (!stage.succeeded()) return;
                    stage.act([] { return dump("packet"); });
                    std::string found(200, 0);
                    const ssize_t count = ::read(reader.get(), found.data(), found.size());
                    const bool hasFailed = !stage.succeeded() || stage.isRefused(Call::writev);
                    if (!hasFailed)
                      stage.check(count == 24 + 16 + 6, "all of it came, in however many parts");
                  }});
}

}  // namespace
