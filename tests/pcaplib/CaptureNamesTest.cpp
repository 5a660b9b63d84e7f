#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "pcaplib/CaptureFixture.h"
#include "support/ForkedChild.h"
#include "support/PcapFile.h"

namespace kes::test {
namespace {

TEST_F(CaptureTest, ANameWithAConversionHoldsTheTypesName) {
  ASSERT_TRUE(DumpOpen((dir_ / "x_%s").c_str(), 0));
  EXPECT_TRUE(exists(dir_ / "x_eth"));
}

TEST_F(CaptureTest, ASecondConversionIsTheNameItself) {
  const auto child = inChild([this] {
    if (::chdir(dir_.path().c_str()) != 0) return 1;
    return DumpOpen("x%s-%s", 1) ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_TRUE(exists(dir_ / "xppp-x%s-%s"));
}

TEST_F(CaptureTest, APlainNameIsUsedAsItStands) {
  ASSERT_TRUE(DumpOpen((dir_ / "-trace").c_str(), 0));
  EXPECT_TRUE(exists(dir_ / "-trace"));
}

TEST_F(CaptureTest, OtherConversionsInANameAreHarmless) {
  ASSERT_TRUE(DumpOpen((dir_ / "%n%d%c%x%").c_str(), 0));
  EXPECT_TRUE(exists(dir_ / "%n%d%c%x%"));
}

TEST_F(CaptureTest, AnEmptyNameIsTheDefaultInTheRootDirectory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the root directory of the test is made by chroot";
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    const auto child = inChild([this, name] {
      if (::chroot(dir_.path().c_str()) != 0) return 1;
      return DumpOpen(name, PCAP_ETHERNET) && DumpOpen(name, PCAP_IP) && dump("abc") ? 0 : 2;
    });
    ASSERT_EQ(child.exitCode(), 0);
    EXPECT_EQ(readFile(dir_ / "kes_dump_eth.pcap").size(), 24U + 16 + 3);
    EXPECT_EQ(readFile(dir_ / "kes_dump_ip.pcap").size(), 24U);
  }
}

TEST_F(CaptureTest, APacketOfATypeThatWasNotOpenedOpensTheDefaultFile) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the root directory of the test is made by chroot";
  const auto child = inChild([this] {
    if (::chroot(dir_.path().c_str()) != 0) return 1;
    return dump("one", PCAP_PPP) && dump("two", PCAP_PPP) && cap_types[1].opened == 1 ? 0 : 2;
  });
  ASSERT_EQ(child.exitCode(), 0);
  const PcapFile file = PcapFile::parse(readFile(dir_ / "kes_dump_ppp.pcap"));
  EXPECT_EQ(file.linkType, 9U);
  EXPECT_EQ(file.packets(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(CaptureTest, APacketWhoseDefaultFileCannotBeOpenedIsRefused) {
  const auto child = asNobody([] {
    if (::access("/", W_OK) == 0) return 3;
    return !dump("abc") && cap_types[0].opened == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST_F(CaptureTest, AFileThatCannotBeMadeGivesFalseAndStaysNotOpened) {
  EXPECT_FALSE(DumpOpen((dir_ / "no/such/folder").c_str(), 0));
  EXPECT_FALSE(DumpOpen(dir_.path().c_str(), 0));
  EXPECT_EQ(cap_types[0].opened, 0);
}

TEST_F(CaptureTest, APacketWhoseFileCannotBeOpenedGivesFalse) {
  const std::string folder = dir_ / "folder";
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  ASSERT_TRUE(DumpOpen((folder + "/file").c_str(), 0));
  ASSERT_EQ(::rename(folder.c_str(), (dir_ / "moved").c_str()), 0);
  EXPECT_FALSE(dump("lost"));
  ASSERT_EQ(::rename((dir_ / "moved").c_str(), folder.c_str()), 0);
  EXPECT_TRUE(dump("kept"));
  EXPECT_EQ(PcapFile::parse(readFile(folder + "/file")).packets(), std::vector<std::string>{"kept"});
}

TEST_F(CaptureTest, ANameThatDoesNotFitIsAnOpenFailureAndNothingIsMade) {
  std::string name = dir_.path();
  while (name.size() < 900) name += "/.";
  name += '/' + std::string(1023 - name.size() - 1, 'n');
  ASSERT_EQ(name.size(), 1023U);
  EXPECT_TRUE(DumpOpen(name.c_str(), 0));
  EXPECT_FALSE(DumpOpen((name + 'n').c_str(), 0));
  EXPECT_FALSE(exists(name + 'n'));
  EXPECT_FALSE(dump("abc")) << "a packet went into a file that nobody chose";
  EXPECT_EQ(readFile(name).size(), 24U);
}

TEST_F(CaptureTest, ANameThatDoesNotFitIsAnOpenFailureHoweverShortItsExpansion) {
  std::string name = dir_ / "short";
  while (name.size() < 1024) name += "%1$.0s";
  EXPECT_FALSE(DumpOpen(name.c_str(), 0));
  EXPECT_FALSE(exists(dir_ / "short"));
  EXPECT_EQ(cap_types[0].opened, 0);
  name = dir_ / "short%%";
  while (name.size() + 6 < 1024) name += "%1$.0s";
  EXPECT_TRUE(DumpOpen(name.c_str(), 0)) << "and one that fits is none";
  EXPECT_TRUE(exists(dir_ / "short%"));
}

TEST_F(CaptureTest, AnExpansionThatDoesNotFitIsAnOpenFailure) {
  EXPECT_FALSE(DumpOpen((dir_ / "%99999s").c_str(), 0));
  EXPECT_FALSE(DumpOpen(
      (dir_ / "%s%s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s").c_str(), 0));
  EXPECT_FALSE(DumpOpen("%.0s", 0)) << "an empty path";
}

TEST_F(CaptureTest, ATypeAboveTwoGivesFalse) {
  for (PCAP_TYPE type : {3U, 4U, std::numeric_limits<PCAP_TYPE>::max()}) {
    EXPECT_FALSE(DumpOpen(file_.c_str(), type));
    EXPECT_FALSE(dump("abc", type));
  }
  EXPECT_FALSE(exists(file_));
}

TEST_F(CaptureTest, NewFilesHaveTheModeOfTheUmask) {
  const auto child = inChild([this] {
    ::umask(027);
    return DumpOpen(file_.c_str(), 0) ? 0 : 1;
  });
  ASSERT_EQ(child.exitCode(), 0);
  struct stat status;
  ASSERT_EQ(::stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(CaptureTest, AnExistingFileKeepsItsMode) {
  writeFile(file_, "old content");
  ASSERT_EQ(::chmod(file_.c_str(), 0600), 0);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  struct stat status;
  ASSERT_EQ(::stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(CaptureTest, APathInTheTableMayBeTheNameOfTheNextCapture) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("abc"));
  ASSERT_TRUE(DumpOpen(cap_types[0].path, 0));
  EXPECT_EQ(readFile(file_).size(), 24U);
}

}  // namespace
}  // namespace kes::test
