#include "Journal.h"

#include <regex>

#include "wire/Wire.h"

namespace kes::driver {
namespace {

/// The lines of a journal, without their times.
class JournalTest : public testing::Test {
 protected:
  ~JournalTest() override {
    if (file_ != nullptr) std::fclose(file_);
  }

  std::string written() {
    std::rewind(file_);
    char text[8192];
    const std::string all(text, std::fread(text, 1, sizeof text, file_));
    return std::regex_replace(all, std::regex("\"time\":[0-9]+\\.[0-9]{9},"), "");
  }

  std::FILE* file_ = std::tmpfile();
  Journal journal_{nullptr, file_};
  const Session session_{.number = 7};
};

TEST_F(JournalTest, AConnectionIsAnObjectOnALine) {
  journal_.connected(session_);
  EXPECT_EQ(written(), "{\"connection\":7,\"event\":\"connected\"}\n");
}

TEST_F(JournalTest, ARequestSaysWhatItCallsAndWithWhat) {
  std::uint8_t scalars[16];
  iokit::encode64(5, iokit::encode64(2, scalars));
  const std::uint8_t structure[] = {0xab, 0x01};
  const iokit::RequestHeader header{
      .sequence = 3, .scalarCount = 2, .structureSize = 2, .structureCapacity = 16};
  const Call call{.name = CallName::Open, .request = {header, scalars, structure}};
  journal_.received(session_, call);
  EXPECT_EQ(written(),
            "{\"connection\":7,\"event\":\"request\",\"call\":\"open\",\"sequence\":3,\"selector\":0,"
            "\"scalars\":[2,5],\"structure\":\"ab01\",\"scalarCapacity\":0,\"structureCapacity\":16}\n");
}

TEST_F(JournalTest, RepliesAndWhatIsNoRequestAreGivenWhole) {
  const std::uint8_t bytes[] = {0x4b, 0xff};
  journal_.sent(session_, bytes);
  journal_.malformed(session_, bytes);
  EXPECT_EQ(written(),
            "{\"connection\":7,\"event\":\"reply\",\"datagram\":\"4bff\"}\n"
            "{\"connection\":7,\"event\":\"malformed\",\"datagram\":\"4bff\"}\n");
}

TEST_F(JournalTest, AReasonIsATextOfJson) {
  journal_.closed(session_, "a \"word\"\\\n");
  EXPECT_EQ(written(), "{\"connection\":7,\"event\":\"closed\",\"reason\":\"a \\\"word\\\"\\\\ \"}\n");
}

}  // namespace
}  // namespace kes::driver
