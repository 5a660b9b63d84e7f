#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>

#include "pcaplib/Writer.h"
#include "support/EveryFailure.h"
#include "support/PcapFile.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"
#include "sys/Owner.h"

// Captures that keep their file open.

namespace kes::pcap {
namespace {

using test::Call;
using test::expectSurvival;
using test::PcapFile;
using test::raises;
using test::readFile;
using test::Stage;

Packet packetOf(std::string_view bytes) {
  return {.data = bytes.data(), .length = static_cast<std::uint32_t>(bytes.size())};
}

using Packets = std::vector<std::string>;

/// What a reader finds; nothing in an empty file.
Packets packetsIn(Stage& stage, const std::string& path) {
  if (::access(path.c_str(), F_OK) != 0) return {};
  const std::string content = readFile(path);
  if (content.empty()) return {};
  try {
    const PcapFile file = PcapFile::parse(content);
    stage.check(file.hasHeader && file.torn == 0, "a reader takes it");
    return file.packets();
  } catch (const std::runtime_error& error) {
    stage.check(false, std::string("a reader takes it: ") + error.what());
    return {};
  }
}

TEST(EveryFailureOfWriters, ACaptureIsWrittenStartedAnewAndClosed) {
  expectSurvival(
      {.operations = {"kes::pcap::Writer::Writer", "kes::pcap::Writer::write", "kes::pcap::Writer::totals",
                      "kes::pcap::Writer::reset", "kes::pcap::Writer::close"},
       .raises = {raises("kes::FsError"), raises("kes::OsError", {}, "now")},
       .play =
           [](Stage& stage) {
             const std::string path = stage / "capture", large(6000, 'p');
             std::optional<Writer> writer;
             const sys::AtEnd whateverHappens([&] { packetsIn(stage, path); });
             stage.act([&] { writer.emplace(path.c_str(), Writer::Options{}); });
             if (!writer) writer.emplace(path.c_str(), Writer::Options{});
             stage.act([&] { return writer->write(packetOf(large)) == 0; });
             const Packets first = stage.succeeded() ? Packets{large} : Packets{};
             stage.check(packetsIn(stage, path) == first, "it is there if that was said");
             stage.check(writer->totals().written == first.size(), "it counts then");
             stage.act([&] { writer->reset(); });
             if (stage.succeeded()) stage.check(writer->totals().written == 0, "a new capture");
             const bool isTaken = writer->write(packetOf("next")) == 0;
             const Packets found = packetsIn(stage, path);
             stage.check(isTaken == (!found.empty() && found.back() == "next"), "a reader finds it, or not");
             if (!isTaken) writer->reset();
             stage.check(writer->write(packetOf("last")) == 0, "packets follow");
             const Packets all = packetsIn(stage, path);
             stage.check(!all.empty() && all.back() == "last", "whole ones");
             stage.act([&] { writer->close(); });
             stage.check(writer->write(packetOf("late")) == EBADF, "it is closed in any case");
           },
       .mayLeaveFiles = true,
       .misused = {Call::clock_gettime}});
}

TEST(EveryFailureOfWriters, NamesAndCommentsAreWritten) {
  expectSurvival(
      {.operations = {"kes::pcap::Writer::Writer", "kes::pcap::Writer::write", "kes::pcap::Writer::~Writer"},
       .raises = {raises("kes::FsError")},
       .play =
           [](Stage& stage) {
             const std::string path = stage / "capture", remark(300, 'r');
             const Writer::Options options{.format = Format::Pcapng,
                                           .interfaceName = "an interface with a name",
                                           .comment = remark.c_str()};
             std::optional<Writer> writer;
             stage.act([&] { writer.emplace(path.c_str(), options); });
             if (!writer) writer.emplace(path.c_str(), options);
             const std::size_t before = readFile(path).size();
             Packet packet = packetOf("bytes");
             packet.comment = remark.c_str();
             stage.act([&] { return writer->write(packet) == 0; });
             const std::size_t size = readFile(path).size();
             stage.check(stage.succeeded() ? size > before + remark.size() : size == before,
                         "whole or not there");
             stage.act([&] { writer.reset(); });
             stage.check(stage.succeeded(), "the end of an object raises nothing");
           },
       .mayLeaveFiles = true});
}

TEST(EveryFailureOfWriters, ACaptureGoesIntoAPipe) {
  expectSurvival({.operations = {"kes::pcap::Writer::write"},
                  .raises = {raises("kes::FsError"), raises("kes::OsError", {}, "now")},
                  .play = [](Stage& stage) {
                    const std::string path = stage / "pipe";
                    if (::mkfifo(path.c_str(), 0600) != 0) return;
                    const sys::Descriptor reader(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
                    std::optional<Writer> writer;
                    stage.act([&] { writer.emplace(path.c_str(), Writer::Options{}); });
                    if (!stage.succeeded()) return;
                    const bool isTaken = stage.act([&] { return writer->write(packetOf("packet")) == 0; });
                    std::string found(200, 0);
                    const ssize_t count = ::read(reader.get(), found.data(), found.size());
                    stage.check(count == 24 + (isTaken ? 16 + 6 : 0), "all of it came, or nothing");
                  }});
}

}  // namespace
}  // namespace kes::pcap
