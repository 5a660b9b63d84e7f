#include <unistd.h>

#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

std::string usageOf(const std::string& program) {
  return "usage: " + program +
         " [-trace|-dump] <options>\n\n"
         "  -trace   get driver traces\n"
         "   options: [-d <driverDbgLvl> -p <pppDbgLvl> -o <oidDbgLvl>]\n\n"
         "  -dump    write PCAP compatible dump file\n"
         "   options: capture filename\n\n";
}

class UsageTest : public ToolTest {
 protected:
  void expectUsage(const std::vector<std::string>& arguments) {
    Process tool(kestrace(arguments));
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_EQ(tool.out(), usageOf(KESTRACE));
    EXPECT_EQ(tool.err(), "");
  }
};

TEST_F(UsageTest, NoArgumentGivesTheUsageAndOne) { expectUsage({}); }

TEST_F(UsageTest, AnUnknownArgumentGivesTheUsageAndOne) {
  expectUsage({"-x"});
  expectUsage({""});
  expectUsage({"-TRACE"});
  expectUsage({"-trace", "extra"});
  expectUsage({"-dump", "name", "extra"});
  expectUsage({"-d3"});
}

TEST_F(UsageTest, ALevelWithoutAValueGivesTheUsageAndOne) {
  for (const char* option : {"-d", "-p", "-o", "-c"}) {
    expectUsage({option});
    expectUsage({"-trace", option});
  }
}

TEST_F(UsageTest, AWrongArgumentBehindAModeLeavesTheDriverAlone) {
  play("");
  expectUsage({"-trace", "-d"});
  expectUsage({"-dump", dir_ / "capture", "-d"});
  EXPECT_EQ(requests(), std::vector<std::string>{});
  EXPECT_NE(::access((dir_ / "capture").c_str(), F_OK), 0);
}

TEST_F(UsageTest, LevelsWithoutAModePrintNothingAndLeaveTheDriverAlone) {
  play("");
  Process tool(kestrace({"-d", "3", "-p", "2", "-o", "1"}));
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), "");
  EXPECT_EQ(tool.err(), "");
  EXPECT_EQ(requests(), std::vector<std::string>{});
}

TEST_F(UsageTest, TheTextNamesTheProgramAsItWasCalled) {
  Process tool({"sh", "-c", "PATH=\"$(dirname \"$0\"):$PATH\"; kestrace", KESTRACE});
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.out(), usageOf("kestrace"));
}

TEST_F(UsageTest, AFullDeviceAsOutputChangesNothingElse) {
  Process tool({"sh", "-c", "exec \"$0\" > /dev/full", KESTRACE});
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.err(), "");
}

}  // namespace
}  // namespace kes::test
