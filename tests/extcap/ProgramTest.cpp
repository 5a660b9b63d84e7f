#include <filesystem>

#include "extcap/ExtcapFixture.h"

namespace kes::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

struct Ending {
  int code;
  std::string out, err;
};

Ending run(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {}) {
  Process program(extcap(arguments), {.environment = environment});
  const int code = program.wait();
  return {code, program.out(), program.err()};
}

TEST(ExtcapProgramTest, TheMenuIsInTheWordsOfTheProtocol) {
  const Ending interfaces = run({"--extcap-interfaces", "--extcap-version=4.0"});
  EXPECT_EQ(interfaces.code, 0);
  EXPECT_THAT(interfaces.out,
              testing::MatchesRegex("extcap \\{version=[0-9.]+\\}\\{display=VPN driver\\}\n"
                                    "interface \\{value=kes_vpn\\}\\{display=VPN driver\\}\n"
                                    "(control \\{number=[0-3]\\}\\{type=(string|button)\\}.*\n)+"));
  EXPECT_EQ(run({"--extcap-interface", "kes_vpn", "--extcap-dlts"}).out,
            "dlt {number=1}{name=EN10MB}{display=Ethernet}\n");
  const std::string options = run({"--extcap-interface", "kes_vpn", "--extcap-config"}).out;
  for (const char* call : {"--driver-level", "--ppp-level", "--oid-level", "--totals"}) {
    EXPECT_THAT(options, HasSubstr("{call=" + std::string(call) + "}"));
  }
  EXPECT_THAT(run({"--extcap-interface", "kes_vpn", "--extcap-capture-filter", "tcp"}).out,
              HasSubstr("no capture filters"));
}

TEST(ExtcapProgramTest, WhatIsNotUnderstoodIsSaidWithTheUsage) {
  const Ending wrong = run({"--nonsense"});
  EXPECT_EQ(wrong.code, 2);
  EXPECT_THAT(wrong.err, testing::StartsWith("kestrace-extcap: unknown option --nonsense\nusage: "));
  EXPECT_EQ(wrong.out, "");
  const Ending help = run({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_THAT(help.out, testing::StartsWith("usage: "));
  EXPECT_THAT(run({"--version"}).out, testing::MatchesRegex("kestrace-extcap [0-9.]+\n"));
}

TEST(ExtcapProgramTest, AFileThatCannotBeMadeIsSaid) {
  const Ending ending = run({"--capture", "--fifo", "/nowhere/at/all"});
  EXPECT_EQ(ending.code, 1);
  EXPECT_THAT(ending.err, HasSubstr("/nowhere/at/all"));
}

class ExtcapInstallationTest : public testing::Test {
 protected:
  Ending install(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> environment = {"HOME=" + home_.path(), "XDG_CONFIG_HOME="};
    environment.insert(environment.end(), more.begin(), more.end());
    return run({"--install-for-user"}, environment);
  }

  TempDir home_;
  const std::string now_ = home_ / ".local/lib/wireshark/extcap/kestrace-extcap";
  const std::string before_ = home_ / ".config/wireshark/extcap/kestrace-extcap";
};

TEST_F(ExtcapInstallationTest, TheProgramIsLinkedWhereTheAnalyserLooks) {
  for (int time : {1, 2}) {
    const Ending installation = install();
    EXPECT_EQ(installation.code, 0) << time << installation.err;
    for (const std::string& link : {now_, before_}) {
      EXPECT_EQ(fs::read_symlink(link), fs::canonical(EXTCAP));
      EXPECT_THAT(installation.out, HasSubstr(link + " -> "));
    }
  }
}

TEST_F(ExtcapInstallationTest, ALinkToAnEarlierProgramIsReplaced) {
  fs::create_directories(fs::path(now_).parent_path());
  fs::create_symlink("/nowhere", now_);
  EXPECT_EQ(install().code, 0);
  EXPECT_EQ(fs::read_symlink(now_), fs::canonical(EXTCAP));
}

TEST_F(ExtcapInstallationTest, AFileOfThatNameIsLeftAlone) {
  fs::create_directories(fs::path(now_).parent_path());
  writeFile(now_, "mine");
  const Ending installation = install();
  EXPECT_EQ(installation.code, 1);
  EXPECT_THAT(installation.err, HasSubstr(now_));
  EXPECT_EQ(readFile(now_), "mine");
}

TEST_F(ExtcapInstallationTest, AFolderForSettingsIsHeeded) {
  const TempDir settings;
  EXPECT_EQ(install({"XDG_CONFIG_HOME=" + settings.path()}).code, 0);
  EXPECT_TRUE(fs::is_symlink(settings / "wireshark/extcap/kestrace-extcap"));
}

TEST_F(ExtcapInstallationTest, WithoutAHomeNothingIsLinked) {
  const Ending installation = run({"--install-for-user"}, {"HOME="});
  EXPECT_EQ(installation.code, 1);
  EXPECT_THAT(installation.err, HasSubstr("HOME is not set"));
}

}  // namespace
}  // namespace kes::test
