#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "iokit/UserClient.h"
#include "support/CaptureFiles.h"
#include "support/DriverProcess.h"
#include "support/Eventually.h"

namespace kes::test {
namespace {

using testing::HasSubstr;
using Clock = std::chrono::steady_clock;

std::string captureFile(const TempDir& directory, const std::vector<Packet>& packets) {
  writeFile(directory / "capture", CaptureFiles::pcap(packets));
  return directory / "capture";
}

std::vector<Packet> fetchUntil(io_connect_t connect, std::size_t count) {
  std::vector<Packet> packets;
  const auto limit = Clock::now() + std::chrono::seconds(60);
  while (packets.size() < count && Clock::now() < limit) {
    const CallResult reply = getPacket(connect);
    EXPECT_EQ(reply.code, kIOReturnSuccess);
    if (!reply.bytes.empty()) packets.push_back(reply.bytes);
  }
  return packets;
}

std::string traceUntil(io_connect_t connect, std::size_t size) {
  std::string text;
  const auto limit = Clock::now() + std::chrono::seconds(60);
  while (text.size() < size && Clock::now() < limit) text += textOf(getTrace(connect));
  return text;
}

TEST(DriverProgramTest, ItSaysThatItIsAStandIn) {
  DriverProcess driver;
  ASSERT_TRUE(driver.waitForOutput("serving"));
  EXPECT_EQ(
      driver.output(),
      "kesdriver is a stand-in for the VPN kernel driver, for development and tests. It is not the driver.\n"
      "serving kes_vpn_driver_keslbmac at " +
          driver.socket() + "\n");
}

TEST(DriverProgramTest, EachEndingSignalEndsItCleanlyWithTotalsAndWithoutItsSocket) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    DriverProcess driver;
    driver.signal(number);
    const int status = driver.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << number;
    EXPECT_THAT(driver.output(),
                HasSubstr("connections: 0 (trace 0, dump 0)\n"
                          "trace: 0 bytes delivered, 0 lost, 0 left\n"
                          "packets: 0 seen, 0 delivered, 0 cut, 0 refused, 0 dropped, 0 empty, "
                          "0 unwatched, 0 left\n"));
    EXPECT_FALSE(std::filesystem::exists(driver.socket()));
  }
}

TEST(DriverProgramTest, WithOnceItEndsAfterTheLastConnectionClosed) {
  DriverProcess driver({"--once"});
  const io_connect_t first = openClient(1);
  const io_connect_t second = openClient(2);
  IOServiceClose(first);
  EXPECT_EQ(getPacket(second).code, kIOReturnSuccess);
  IOServiceClose(second);
  const int status = driver.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_THAT(driver.output(), HasSubstr("connections: 2 (trace 1, dump 1)\n"));
}

TEST(DriverProgramTest, WithOnceARefusedConnectionCountsToo) {
  const TempDir directory;
  DriverProcess driver(
      {"--once", "--script", writeScript(directory, "service return kIOReturnNotPermitted\n")});
  const io_service_t service = matchService();
  io_connect_t connect = 0;
  EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connect), kIOReturnNotPermitted);
  EXPECT_EQ(driver.wait(), 0);
}

TEST(DriverProgramTest, WithoutARateAReplayLosesNothingHoweverSlowlyItIsFetched) {
  std::vector<Packet> packets;
  for (std::size_t i = 0; i < 3000; ++i) {
    packets.push_back(CaptureFiles::packet(1 + i % 4096, static_cast<std::uint8_t>(i)));
  }
  const TempDir directory;
  DriverProcess driver({"--replay", captureFile(directory, packets)});
  EXPECT_EQ(fetchUntil(openClient(2), packets.size()), packets);
  EXPECT_TRUE(getPacket(openClient(2)).bytes.empty());
  driver.stop();
  EXPECT_THAT(driver.output(), HasSubstr("packets: 3000 seen, 3000 delivered, 0 cut"));
}

TEST(DriverProgramTest, ARateIsKeptAndPausesWhileNobodyIsConnected) {
  std::vector<Packet> packets(40, CaptureFiles::packet(60));
  const TempDir directory;
  DriverProcess driver({"--replay", captureFile(directory, packets), "--rate", "100"});
  const auto start = Clock::now();
  const io_connect_t connect = openClient(2);
  EXPECT_EQ(fetchUntil(connect, 20).size(), 20u);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(190)) << "19 gaps of 10 ms";
  IOServiceClose(connect);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // ten packets' time: none may be lost by it
  EXPECT_EQ(fetchUntil(openClient(2), 20).size(), 20u);
  driver.stop();
  EXPECT_THAT(driver.output(), HasSubstr("40 seen, 40 delivered"));
}

TEST(DriverProgramTest, TheTimesOfACaptureAreKeptWhenTheyAreWanted) {
  const TempDir directory;
  // Nanoseconds: 0, then 50 ms later, a stamp in disorder, and 100 ms after that one.
  writeFile(directory / "capture",
            CaptureFiles::stampedPcap({{100, 900'000'000}, {100, 950'000'000}, {100, 0}, {100, 100'000'000}},
                                      CaptureFiles::packet(60)));
  DriverProcess driver({"--replay", directory / "capture", "--pace"});
  const auto start = Clock::now();
  const io_connect_t connect = openClient(2);
  EXPECT_EQ(fetchUntil(connect, 1).size(), 1u);
  EXPECT_EQ(fetchUntil(connect, 2).size(), 2u);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50)) << "the second waits, the third does not";
  EXPECT_EQ(fetchUntil(connect, 1).size(), 1u);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));
  IOServiceClose(connect);
}

TEST(DriverProgramTest, TotalsAreToldWheneverTheyAreAskedFor) {
  const TempDir directory;
  DriverProcess driver({"--replay", captureFile(directory, {CaptureFiles::packet(60)})});
  const io_connect_t trace = openClient(1);
  setLevels(trace, 1, 0, 0);
  const io_connect_t dump = openClient(2);
  EXPECT_EQ(fetchUntil(dump, 1).size(), 1u);
  traceUntil(trace, 1);
  for (const char* connections : {"2", "3"}) {
    driver.signal(SIGUSR1);
    ASSERT_TRUE(driver.waitForOutput(std::string("connections: ") + connections + " (trace 1"));
    ASSERT_TRUE(driver.waitForOutput("packets: 1 seen, 1 delivered, 0 cut"));
    EXPECT_THAT(traceUntil(trace, 1),
                HasSubstr("driver: packets: 1 seen, 1 delivered, 0 cut, 0 refused, 0 dropped"));
    openClient(2);
    traceUntil(trace, 1);
  }
  EXPECT_EQ(driver.stop(), 0);
}

TEST(DriverProgramTest, AJournalIsWrittenBesideTheUsualOutput) {
  const TempDir directory;
  DriverProcess driver({"--journal", directory / "journal"});
  IOServiceClose(openClient(2));
  ASSERT_TRUE(
      eventually([&] { return readFile(directory / "journal").find("\"closed\"") != std::string::npos; }));
  EXPECT_THAT(readFile(directory / "journal"),
              testing::ContainsRegex("\"call\":\"open\",.*\"scalars\":\\[2\\]"));
  EXPECT_THAT(driver.output(), testing::Not(HasSubstr("event")));
  DriverProcess other({"--journal", "-"});
  IOServiceClose(openClient(2));
  EXPECT_TRUE(other.waitForOutput("\"event\":\"closed\",\"reason\":\"by the client\"}"));
  EXPECT_THAT(runDriver({"--dir", directory.path(), "--journal", "/nowhere/at/all"}).output,
              HasSubstr("cannot write /nowhere/at/all"));
}

TEST(DriverProgramTest, AtARateAFullQueueDropsAndTheTotalsSayIt) {
  const TempDir directory;
  DriverProcess driver(
      {"--replay", captureFile(directory, {CaptureFiles::packet(60)}), "--loop", "--rate", "100000"});
  const io_connect_t trace = openClient(1);
  setLevels(trace, 0, 1, 0);
  const io_connect_t dump = openClient(2);
  EXPECT_THAT(traceUntil(trace, 1), testing::StartsWith("ppp: packet dropped: queue full\n"));
  EXPECT_EQ(getPacket(dump).bytes.size(), 60u);
  driver.stop();
  EXPECT_THAT(driver.output(),
              testing::ContainsRegex(" [1-9][0-9]* dropped, 0 empty, [0-9]+ unwatched, 102[34] left"));
}

TEST(DriverProgramTest, ARateThatNobodyKeepsUpWithLeavesTimeForRequests) {
  const TempDir directory;
  DriverProcess driver(
      {"--replay", captureFile(directory, {CaptureFiles::packet(60)}), "--loop", "--rate", "1000000000"});
  const io_connect_t dump = openClient(2);
  for (int request = 0; request < 100; ++request) EXPECT_EQ(getPacket(dump).code, kIOReturnSuccess);
  EXPECT_EQ(driver.stop(), 0);
}

TEST(DriverProgramTest, ALoopGoesOnForEver) {
  const TempDir directory;
  const DriverProcess driver({"--replay", captureFile(directory, {{1, 1, 1}, {2, 2, 2}}), "--loop"});
  const auto packets = fetchUntil(openClient(2), 101);
  ASSERT_EQ(packets.size(), 101u);
  EXPECT_EQ(packets[99], (Packet{2, 2, 2}));
  EXPECT_EQ(packets[100], (Packet{1, 1, 1}));
}

TEST(DriverProgramTest, OversizeIsCutOrRefused) {
  const TempDir directory;
  const std::string file =
      captureFile(directory, {CaptureFiles::packet(4097), CaptureFiles::packet(4096), {}});
  {
    DriverProcess cutting({"--replay", file});
    const io_connect_t connect = openClient(2);
    EXPECT_EQ(getPacket(connect).bytes.size(), 4096u);
    EXPECT_EQ(getPacket(connect).bytes, CaptureFiles::packet(4096));
    EXPECT_TRUE(getPacket(connect).bytes.empty());
    cutting.stop();
    EXPECT_THAT(cutting.output(), HasSubstr("3 seen, 2 delivered, 1 cut, 0 refused, 0 dropped, 1 empty"));
  }
  DriverProcess refusing({"--replay", file, "--oversize", "refuse"});
  const io_connect_t connect = openClient(2);
  EXPECT_EQ(getPacket(connect).code, kIOReturnNoSpace);
  EXPECT_EQ(getPacket(connect).bytes, CaptureFiles::packet(4096));
  refusing.stop();
  EXPECT_THAT(refusing.output(), HasSubstr("1 delivered, 0 cut, 1 refused"));
}

TEST(DriverProgramTest, TraceTextOfAFileComesWholeHoweverLongItIs) {
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "line " + std::to_string(i) + " of the trace\n";
  const TempDir directory;
  writeFile(directory / "trace", text);
  DriverProcess driver({"--trace", directory / "trace"});
  const io_connect_t connect = openClient(1);
  EXPECT_EQ(traceUntil(connect, text.size()), text);
  EXPECT_EQ(getTrace(connect).bytes.size(), 2u);
  driver.stop();
  EXPECT_THAT(driver.output(), HasSubstr(std::to_string(text.size()) + " bytes delivered, 0 lost, 0 left"));
}

TEST(DriverProgramTest, TraceTextOfANamedPipeComesAsItsWritersComeAndGo) {
  const TempDir directory;
  ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
  const DriverProcess driver({"--trace", directory / "pipe"});
  const io_connect_t connect = openClient(1);
  EXPECT_EQ(getTrace(connect).bytes.size(), 2u);
  writeFile(directory / "pipe", "first writer\n");
  EXPECT_EQ(traceUntil(connect, 13), "first writer\n");
  writeFile(directory / "pipe", "second writer\n");
  EXPECT_EQ(traceUntil(connect, 14), "second writer\n");
}

TEST(DriverProgramTest, TraceTextOfStandardInputMayEnd) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const DriverProcess driver({"--trace", "-"}, ends[0]);
  ::close(ends[0]);
  const io_connect_t connect = openClient(1);
  ASSERT_EQ(::write(ends[1], "piped\n", 6), 6);
  EXPECT_EQ(traceUntil(connect, 6), "piped\n");
  ::close(ends[1]);
  EXPECT_EQ(getTrace(connect).bytes.size(), 2u);
  EXPECT_EQ(getTrace(connect).bytes.size(), 2u);
}

TEST(DriverProgramTest, APipeThatNobodyFetchesLosesTextAndSaysHowMuch) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  DriverProcess driver({"--trace", "-"}, ends[0]);
  ::close(ends[0]);
  const std::string line = "a line of trace text that is to be lost\n";
  std::string text;
  for (int i = 0; i < 5000; ++i) text += line;
  ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(ends[1]);
  const io_connect_t connect = openClient(1);
  std::string got;
  while (got.find("bytes of trace lost ***") == std::string::npos) got += textOf(getTrace(connect));
  const std::size_t lost = std::stoul(got.substr(got.find("*** ") + 4));
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(driver.stop(), 0);
  EXPECT_THAT(driver.output(), testing::ContainsRegex(" [1-9][0-9]* lost"));
}

TEST(DriverProgramTest, VerboseShowsTheBytesThatArriveAndLeave) {
  const TempDir directory;
  DriverProcess driver({"--verbose", "--replay", captureFile(directory, {{0xca, 0xfe}})});
  const io_connect_t trace = openClient(1);
  setLevels(trace, 3, 2, 1);
  getTrace(trace);
  IOServiceClose(trace);
  const io_connect_t dump = openClient(2);
  getPacket(dump);
  driver.stop();
  for (const char* line : {
           "connection 1 connected\n",
           "connection 1 request service sequence=1 selector=0 scalars= structure= scalar-capacity=0 "
           "structure-capacity=0\n",
           "connection 1 request open sequence=2 selector=0 scalars=1 structure= scalar-capacity=0 "
           "structure-capacity=0\n",
           "connection 1 request levels sequence=3 selector=3 scalars= "
           "structure=0e0002000a000001030002000100000000000000000000000000000000000000 "
           "scalar-capacity=0 structure-capacity=0\n",
           "connection 1 request trace sequence=4 selector=3 scalars= "
           "structure=10000001000000000000000000000000 "
           "scalar-capacity=0 structure-capacity=2047\n",
           "connection 1 closed: by the client\n",
           "connection 2 request packet sequence=3 selector=2 scalars= structure= scalar-capacity=0 "
           "structure-capacity=4096\n",
           "connection 2 reply 4b455355010002800300000000000000000000000200000"
           "0cafe\n",
       }) {
    EXPECT_THAT(driver.output(), HasSubstr(line));
  }
}

TEST(DriverProgramTest, AScriptThatFindsOtherBytesThanExpectedEndsWithAFailure) {
  const TempDir directory;
  const std::string script = writeScript(directory, "levels expect 0e00\ntrace text \"x\"\n");
  DriverProcess driver({"--script", script});
  const io_connect_t connect = openClient(1);
  EXPECT_EQ(setLevels(connect, 0, 0, 0), kIOReturnSuccess) << "the call itself goes its usual way";
  EXPECT_EQ(driver.stop(), 1);
  EXPECT_THAT(driver.output(), HasSubstr("script line 1: expected 0e00, got 0e0002000a000001"));
  EXPECT_THAT(driver.output(), HasSubstr("script: 1 unplayed, 1 not as expected\n"));
}

TEST(DriverProgramTest, MistakesEndItBeforeThereIsASocket) {
  const TempDir directory;
  const auto failsWith = [&](const std::vector<std::string>& options, int code, const std::string& message) {
    std::vector<std::string> words{"--dir", directory.path()};
    words.insert(words.end(), options.begin(), options.end());
    const DriverRun run = runDriver(words);
    EXPECT_EQ(run.exitCode, code) << run.output;
    EXPECT_THAT(run.output, HasSubstr(message));
    EXPECT_FALSE(std::filesystem::exists(directory / "kes_vpn_driver_keslbmac.sock"));
  };
  failsWith({"--nonsense"}, 2, "kesdriver: unknown option --nonsense\nusage: kesdriver ");
  failsWith({"--replay", directory / "missing"}, 1, "cannot replay");
  failsWith({"--trace", directory / "missing"}, 1, "cannot read trace text from");
  failsWith({"--trace", directory.path()}, 1, "Is a directory");
  failsWith({"--script", directory / "missing"}, 1, "cannot read");
  failsWith({"--live", "no-such-interface"}, 1, "cannot capture on no-such-interface");
  failsWith({"--script", writeScript(directory, "nonsense")}, 1, "script line 1: no call is named nonsense");
  writeFile(directory / "ppp", CaptureFiles::pcap({{1}}, {.linkType = 9}));
  failsWith({"--replay", directory / "ppp"}, 1, "has link type PPP");
}

TEST(DriverProgramTest, HelpIsTheUsageAndNoFailure) {
  const DriverRun run = runDriver({"--help"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.output,
            "usage: kesdriver [--dir DIR] [--replay FILE.pcap[ng]]... [--live IFACE] [--rate PPS] [--loop]\n"
            "                 [--trace FILE|-] [--oversize cut|refuse] [--once] [--script FILE] [--verbose]\n"
            "                 [--pace] [--journal FILE|-]\n");
}

TEST(DriverProgramTest, ASecondDriverIsRefusedAndADeadOnesPlaceIsTaken) {
  DriverProcess driver;
  const DriverRun second = runDriver({"--dir", driver.directory()});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.output, HasSubstr("a driver is there already"));
  driver.signal(SIGKILL);
  driver.wait();
  // It ends at once: a script that cannot be read is looked at before the socket is made.
  EXPECT_EQ(runDriver({"--dir", driver.directory(), "--script", "/nonexistent"}).exitCode, 1);
  EXPECT_TRUE(std::filesystem::exists(driver.socket()));
}

TEST(DriverProgramTest, OutputThatNobodyReadsDoesNotEndIt) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  const TempDir directory;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(ends[1], 1);
    ::execl(KESDRIVER, KESDRIVER, "--verbose", "--dir", directory.path().c_str(), nullptr);
    ::_exit(127);
  }
  ::close(ends[1]);
  ::setenv("KES_IOREGISTRY", directory.path().c_str(), 1);
  while (!std::filesystem::exists(directory / "kes_vpn_driver_keslbmac.sock")) ::usleep(1000);
  EXPECT_EQ(getPacket(openClient(2)).code, kIOReturnSuccess);
  ::kill(pid, SIGTERM);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_FALSE(std::filesystem::exists(directory / "kes_vpn_driver_keslbmac.sock"));
}

}  // namespace
}  // namespace kes::test
