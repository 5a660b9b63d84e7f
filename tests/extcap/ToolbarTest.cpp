#include "Toolbar.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/TempDir.h"

namespace kes::extcap {
namespace {

using test::TempDir;

TEST(ExtcapToolbarTest, AMessageIsAMarkItsLengthTheControlTheCommandAndAText) {
  EXPECT_EQ(encode({2, Set, "17"}), std::string("T\0\0\4\2\1"
                                                "17",
                                                8));
  EXPECT_EQ(encode({255, StatusMessage, std::string(300, 'x')}),
            std::string("T\0\1\x2e\xff\6", 6) + std::string(300, 'x'));
}

TEST(ExtcapToolbarTest, MessagesComeInPiecesAndTogether) {
  const std::string both = encode({0, Set, "1"}) + encode({1, Set, ""});
  std::string bytes;
  std::vector<std::string> payloads;
  for (const char byte : both) {
    bytes += byte;
    if (const auto message = takeMessage(bytes)) payloads.push_back(message->payload);
  }
  EXPECT_EQ(payloads, (std::vector<std::string>{"1", ""}));
  EXPECT_EQ(bytes, "");
}

TEST(ExtcapToolbarTest, WhatIsNoMessageIsDropped) {
  std::string bytes =
      "rubbish" + std::string("T\0\0\1..", 6) + std::string("T\xff\xff\xff\0\0", 6) + encode({1, Set, "5"});
  const auto message = takeMessage(bytes);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->payload, "5");
  EXPECT_EQ(bytes, "");
}

TEST(ExtcapToolbarTest, MuchThatIsNoMessageIsDroppedAtOnce) {
  std::string bytes;
  while (bytes.size() < 60'000) bytes += "T\xff\xff\xff";
  const std::size_t before = bytes.size();
  EXPECT_FALSE(takeMessage(bytes));
  EXPECT_LT(bytes.size(), 6U) << before;
}

TEST(ExtcapToolbarTest, WithoutPipesThereIsNone) {
  Toolbar toolbar("", "");
  EXPECT_FALSE(toolbar.isThere());
  EXPECT_EQ(toolbar.fd(), -1);
  toolbar.say(StatusMessage, "unheard");
  EXPECT_TRUE(toolbar.read().empty());
}

class ExtcapPipesTest : public testing::Test {
 protected:
  ExtcapPipesTest() {
    ::mkfifo(in_.c_str(), 0600);
    ::mkfifo(out_.c_str(), 0600);
  }

  sys::Descriptor listen() const { return sys::Descriptor(::open(out_.c_str(), O_RDONLY | O_NONBLOCK)); }

  static std::string readAll(const sys::Descriptor& pipe) {
    char bytes[1 << 17];
    const ssize_t got = ::read(pipe.get(), bytes, sizeof bytes);
    return got > 0 ? std::string(bytes, static_cast<std::size_t>(got)) : "";
  }

  TempDir dir_;
  const std::string in_ = dir_ / "in", out_ = dir_ / "out";
};

TEST_F(ExtcapPipesTest, WhatIsSaidBeforeTheWindowListensIsKept) {
  Toolbar toolbar(in_, out_);
  toolbar.say(StatusMessage, "early");
  const sys::Descriptor window = listen();
  toolbar.flush();
  EXPECT_EQ(readAll(window), encode({255, StatusMessage, "early"}));
}

TEST_F(ExtcapPipesTest, AWindowThatTakesNothingKeepsNobodyWaiting) {
  Toolbar toolbar(in_, out_);
  const sys::Descriptor window = listen();
  const std::string line(10'000, 'x');
  for (int i = 0; i < 1000; ++i) toolbar.show(3, Add, line);
  std::string bytes;
  for (std::string more; !(more = readAll(window)).empty(); toolbar.flush()) bytes += more;
  int messages = 0;
  for (; const auto message = takeMessage(bytes); ++messages) ASSERT_EQ(message->payload, line);
  EXPECT_EQ(bytes, "") << "what is dropped is dropped whole";
  EXPECT_GT(messages, 100);
  EXPECT_LT(messages, 200);
}

TEST_F(ExtcapPipesTest, TheWindowMayOpenItsEndAgainAndAgain) {
  Toolbar toolbar(in_, out_);
  EXPECT_TRUE(toolbar.read().empty());
  for (const char* level : {"1", "2"}) {
    const sys::Descriptor window(::open(in_.c_str(), O_WRONLY | O_NONBLOCK));
    const std::string bytes = encode({0, Set, level});
    ASSERT_EQ(::write(window.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    const auto messages = toolbar.read();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].payload, level);
  }
}

}  // namespace
}  // namespace kes::extcap
