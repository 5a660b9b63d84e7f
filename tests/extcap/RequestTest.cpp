#include "Request.h"

#include "Menu.h"

namespace kes::extcap {
namespace {

Request ofCapture(std::vector<std::string> words) {
  words.insert(words.begin(), {"--capture", "--extcap-interface", "kes_vpn", "--fifo", "pipe"});
  return parseRequest(words);
}

TEST(ExtcapRequestTest, TheFourQuestionsAreUnderstood) {
  EXPECT_EQ(parseRequest({"--extcap-interfaces"}).action, Action::Interfaces);
  EXPECT_EQ(parseRequest({"--extcap-dlts", "--extcap-interface", "kes_vpn"}).action, Action::LinkTypes);
  EXPECT_EQ(parseRequest({"--extcap-interface", "kes_vpn", "--extcap-config"}).action, Action::Options);
  EXPECT_EQ(parseRequest({"--extcap-interface", "kes_vpn", "--extcap-capture-filter", "tcp"}).action,
            Action::CheckFilter);
}

TEST(ExtcapRequestTest, ACaptureHasAPipeAndAToolbar) {
  const Request request = ofCapture({"--extcap-control-in", "in", "--extcap-control-out", "out"});
  EXPECT_EQ(request.action, Action::Capture);
  EXPECT_EQ(request.fifo, "pipe");
  EXPECT_EQ(request.controlIn, "in");
  EXPECT_EQ(request.controlOut, "out");
  EXPECT_FALSE(request.levels);
  EXPECT_FALSE(request.totals);
}

TEST(ExtcapRequestTest, LevelsAreTakenAsWordsOrBehindAnEqualsSign) {
  const Request request =
      ofCapture({"--driver-level", "3", "--ppp-level=2", "--oid-level", "65535", "--totals"});
  ASSERT_TRUE(request.levels);
  EXPECT_EQ(request.levels->driver, 3);
  EXPECT_EQ(request.levels->ppp, 2);
  EXPECT_EQ(request.levels->oid, 65535);
  EXPECT_TRUE(request.totals);
}

TEST(ExtcapRequestTest, ALevelThatIsNoneIsAnError) {
  for (const char* level : {"65536", "-1", "", "3x", "loud"}) {
    EXPECT_THROW(ofCapture({"--oid-level", level}), UsageError) << level;
  }
}

TEST(ExtcapRequestTest, WhatANewerAnalyserSaysBesidesIsPassedOver) {
  const Request request = parseRequest({"--extcap-interfaces", "--extcap-version=9.1", "--extcap-novelty",
                                        "value", "--extcap-flag", "--totals"});
  EXPECT_EQ(request.action, Action::Interfaces);
  EXPECT_TRUE(request.totals);
}

TEST(ExtcapRequestTest, WhatIsMissingOrUnknownIsAnError) {
  EXPECT_THROW(parseRequest({"--capture"}), UsageError);
  EXPECT_THROW(parseRequest({"--capture", "--fifo"}), UsageError);
  EXPECT_THROW(parseRequest({"--nonsense"}), UsageError);
  EXPECT_THROW(parseRequest({"--extcap-dlts", "--extcap-interface", "eth0"}), UsageError);
  EXPECT_THROW(ofCapture({"--extcap-capture-filter", "tcp"}), UsageError) << "no filter is obeyed silently";
  EXPECT_NO_THROW(ofCapture({"--extcap-capture-filter", ""}));
}

TEST(ExtcapRequestTest, NoWordsAskForHelp) {
  EXPECT_EQ(parseRequest({}).action, Action::Help);
  EXPECT_EQ(parseRequest({"--help"}).action, Action::Help);
  EXPECT_EQ(parseRequest({"--version"}).action, Action::Version);
  EXPECT_EQ(parseRequest({"--install-for-user"}).action, Action::InstallForUser);
}

}  // namespace
}  // namespace kes::extcap
