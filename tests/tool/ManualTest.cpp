#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

#include "support/PcapFile.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

namespace fs = std::filesystem;

const std::string page = readFile(MANUAL);

std::vector<std::string> matches(const std::string& text, const std::string& pattern) {
  const std::regex expression(pattern);
  std::vector<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
    found.push_back((*at)[1]);
  return found;
}

std::string section(const std::string& title) {
  const std::size_t start = page.find("\n.Sh " + title + '\n');
  if (start == page.npos) return "";
  return page.substr(start + 1, page.find("\n.Sh ", start + 1) - start) + ".";
}

std::string toolSources() {
  std::string all;
  for (const auto& entry : fs::directory_iterator(TOOL_SOURCES)) {
    // The self-test is a library call: no command line leads to it.
    if (entry.path().extension() == ".cpp" && entry.path().stem() != "SelfTest")
      all += readFile(entry.path().string());
  }
  return all;
}

TEST(ManualTest, EveryMessageOfTheManualIsInTheSources) {
  const std::string sources = toolSources();
  const auto messages = matches(section("DIAGNOSTICS"), "\\.It \"([^\"]+)\"");
  EXPECT_EQ(messages.size(), 15U);
  for (std::string message : messages) {
    // The class's name is put in by the program.
    message = std::regex_replace(message, std::regex("kes_vpn_driver_keslbmac"), "%s");
    EXPECT_NE(sources.find('"' + message + "\\n"), sources.npos) << message;
  }
}

TEST(ManualTest, EveryMessageOfTheSourcesIsInTheManual) {
  std::string diagnostics = section("DIAGNOSTICS");
  diagnostics = std::regex_replace(diagnostics, std::regex("kes_vpn_driver_keslbmac"), "%s");
  const auto messages = matches(toolSources(), R"re((?:Print\(|stderr,|fputs\()\s*"((?:[^"\\]|\\.)+)")re");
  EXPECT_GE(messages.size(), 15U);
  for (const std::string& message : messages) {
    const std::string line = message.substr(0, message.find("\\n"));
    if (line == "%s") continue;  // the driver's text
    EXPECT_NE(diagnostics.find(".It \"" + line + '"'), diagnostics.npos) << line;
  }
}

TEST(ManualTest, EveryReturnCodeHasItsPlatformsValue) {
  const std::string header = readFile(IORETURN);
  std::set<std::string> known = {"0x00000000", "0x10000003"};
  for (const std::string& code : matches(header, "(0x[0-9a-fA-F]{8})")) known.insert(code);
  const auto codes = matches(page, "\\.It (0x[0-9a-f]{8})");
  EXPECT_GE(codes.size(), 10U);
  for (const std::string& code : codes) EXPECT_TRUE(known.contains(code)) << code;
}

TEST(ManualTest, EveryVariableThatTheProgramLooksAtIsInTheManual) {
  std::set<std::string> known, told;
  for (const char* folder : {"src/tool", "iokit/wire", "iokit/src", "kespal/src"}) {
    for (const auto& entry : fs::recursive_directory_iterator(std::string(SOURCES "/") + folder)) {
      if (entry.path().extension() != ".cpp") continue;
      for (const std::string& name : matches(readFile(entry.path().string()), "\"(KES[A-Z]*_[A-Z_]+)\""))
        known.insert(name);
    }
  }
  known.erase("KES_I18N");  // half a name, of where message catalogues lie: the tool has none
  for (const std::string& name : matches(section("ENVIRONMENT"), "\\.It Ev ([A-Z_]+)")) told.insert(name);
  EXPECT_EQ(told, known);
}

TEST(ManualTest, TheLinterHasNoComplaint) {
  Process mandoc({"mandoc", "-Tlint", MANUAL}, {.isMerged = true});
  mandoc.wait();
  // Whether the pages referred to are installed here is no matter of this page.
  for (const std::string& line : matches(mandoc.out(), "(?:^|\n)([^\n]+)")) {
    const bool isAboutInstallation =
        line.find("referenced manual not found") != line.npos || line.find("outdated mandoc.db") != line.npos;
    EXPECT_TRUE(isAboutInstallation) << line;
  }
}

/// The recipes of the manual, as a reader copies them.
std::vector<std::string> recipes() {
  std::vector<std::string> all;
  for (std::string text :
       matches(section("EXAMPLES"), "(?:\\.Dl |\\.Bd -literal -offset indent\n)([^]*?)\n(?=\\.)")) {
    for (std::size_t at; (at = text.find("\\e")) != text.npos;) text.replace(at, 2, "\\");
    all.push_back(text);
  }
  return all;
}

/// Runs a recipe in the test's directory, with the tool of this build first in the path.
class RecipeTest : public ToolTest {
 protected:
  static std::string recipe(const std::string& part) {
    for (const std::string& text : recipes()) {
      if (text.find(part) != text.npos) return text;
    }
    ADD_FAILURE() << "the manual has no recipe with " << part;
    return "false";
  }

  Process start(const std::string& text) const {
    const std::string program = KESTRACE;
    return Process(
        {"sh", "-c",
         "cd " + dir_.path() + "; PATH=" + program.substr(0, program.rfind('/')) + ":$PATH\n" + text},
        {.in = keyboard_.reader});
  }

  void playSample() { play("", {"--replay", SAMPLES "/loopback.pcap"}); }
  std::vector<std::string> sample() const {
    return PcapFile::parse(readFile(SAMPLES "/loopback.pcap")).packets();
  }
  std::vector<std::string> captured(const std::string& name) const {
    return PcapFile::parse(readFile(dir_ / name)).packets();
  }

  TestPipe keyboard_;
};

TEST_F(RecipeTest, TheManualHasTheRecipesThatAreTestedHere) { EXPECT_EQ(recipes().size(), 8U); }

TEST_F(RecipeTest, TraceEverything) {
  play("trace text \"deep trace\\n\"\n");
  Process shell = start(recipe("-d 255 -p 255 -o 255"));
  ASSERT_TRUE(shell.waitForOut("deep trace\n"));
  keyboard_.write("Q");
  EXPECT_EQ(shell.wait(), 0);
  EXPECT_NE(shell.out().find("driver=255, ppp=255, oid=255"), shell.out().npos);
}

TEST_F(RecipeTest, CaptureAndLookAtItAfterwards) {
  playSample();
  Process shell = start(recipe("tcpdump -n -r"));
  ASSERT_TRUE(waitForRequests("packet", sample().size() + 1));
  keyboard_.write("Q");
  EXPECT_EQ(shell.wait(), 0) << shell.err();
  EXPECT_EQ(captured("vpn_eth.pcap"), sample());
  EXPECT_NE(shell.out().find("ICMP echo request"), shell.out().npos);
}

TEST_F(RecipeTest, FollowACaptureLive) {
  playSample();
  Process tool(kestrace({"-dump", dir_ / "vpn_eth.pcap"}), {.in = keyboard_.reader});
  ASSERT_TRUE(tool.waitForErr("GetPacket ok"));
  Process shell = start(recipe("tail -c +1"));
  // The packet is shown while the tool still runs and the file still grows.
  ASSERT_TRUE(shell.waitForOut("Echo (ping) request")) << shell.err();
  EXPECT_EQ(::kill(tool.pid(), 0), 0);
  keyboard_.write("Q");
  EXPECT_EQ(tool.wait(), 0);
  Process({"pkill", "-f", "tail -c .1 -f vpn_eth.pcap", "-P", std::to_string(shell.pid())}).wait();
}

TEST_F(RecipeTest, LookAtThePacketsWithoutAFileInBetween) {
  playSample();
  Process shell = start(recipe("exec 3<>vpn.fifo"));
  // All packets come, to the last one: the end of one is no end of the file.
  Process file({"tcpdump", "-t", "-n", "-r", SAMPLES "/loopback.pcap"});
  ASSERT_EQ(file.wait(), 0) << file.err();
  const std::size_t last = file.out().rfind('\n', file.out().size() - 2) + 1;
  ASSERT_TRUE(shell.waitForOut(file.out().substr(last))) << shell.err();
  keyboard_.write("Q");
  EXPECT_EQ(shell.wait(), 0) << shell.err();
}

/// A recipe that gives programs ten seconds, with another number of them.
std::string limited(const std::string& text, int seconds) {
  return std::regex_replace(text, std::regex(" 10 "), ' ' + std::to_string(seconds) + ' ');
}

// A busy machine may not get a program to its work within the limit; then a longer one is tried.
constexpr int limits[] = {2, 8, 32};

TEST_F(RecipeTest, LimitARunInTime) {
  playSample();
  bool isDone = false;
  for (const int limit : limits) {
    if (isDone) break;
    Process shell = start("set +e\n" + limited(recipe("timeout"), limit));
    EXPECT_EQ(shell.wait(), 124) << "what timeout says of a program that it killed";
    isDone =
        shell.out().find("driver=255") != shell.out().npos && shell.err().find(" ok ") != shell.err().npos;
  }
  EXPECT_TRUE(isDone);
  EXPECT_FALSE(captured("vpn.pcap").empty());
}

TEST_F(RecipeTest, TheTimeLimitEndsTheTraceModeInGoodOrder) {
  play("");
  const std::string text = recipe("timeout");
  bool isDone = false;
  for (const int limit : limits) {
    if (!isDone) isDone = start(limited(text.substr(0, text.find('\n')), limit)).wait() == 0;
  }
  EXPECT_TRUE(isDone);
}

TEST_F(RecipeTest, PutTheTimeBeforeEachLine) {
  play("trace text \"one line\\n\"\n");
  Process shell = start(recipe("date +%T"));
  ASSERT_TRUE(shell.waitForOut(" one line\n"));
  keyboard_.write("Q");
  EXPECT_EQ(shell.wait(), 0);
  EXPECT_EQ(matches(shell.out(), "([0-9]{2}:[0-9]{2}:[0-9]{2} one line)\n").size(), 1U);
}

TEST_F(RecipeTest, FilterTheLines) {
  play("trace text \"driver: up\\nPPP: link up\\n\"\n");
  Process shell = start(recipe("grep"));
  ASSERT_TRUE(shell.waitForOut("PPP: link up\n")) << "held back while the tool runs";
  keyboard_.write("Q");
  EXPECT_EQ(shell.wait(), 0);
  EXPECT_EQ(shell.out(), "PPP: link up\n");
}

TEST_F(RecipeTest, KeepTheMessagesOut) {
  playSample();
  Process shell = start(recipe("2>/dev/null"));
  ASSERT_TRUE(waitForRequests("packet", sample().size() + 1));
  keyboard_.write("Q");
  EXPECT_EQ(shell.wait(), 0);
  EXPECT_EQ(shell.err(), "");
  EXPECT_EQ(captured("vpn.pcap"), sample());
}

}  // namespace
}  // namespace kes::test
