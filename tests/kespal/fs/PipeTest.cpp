#include "kespal/fs/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "kespal/fs/StreamFile.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/Raised.h"
#include "sys/Owner.h"

namespace kes::fs {
namespace {

using sys::Descriptor;
using test::Call;
using test::openDescriptors;
using test::raisedBy;
using test::Refuse;

struct Ends {
  explicit Ends(const Pipe& pipe) : read(pipe.readEnd), write(pipe.writeEnd) {}
  Descriptor read, write;
};

bool isNonBlocking(const Descriptor& end) { return (::fcntl(end.get(), F_GETFL) & O_NONBLOCK) != 0; }

TEST(PipeTest, WhatIsWrittenIntoOneEndIsReadFromTheOther) {
  Pipe pipe = Pipe::make();
  StreamFile reader, writer;
  reader.open(pipe, /*readEnd=*/true);
  writer.open(pipe, /*readEnd=*/false);
  EXPECT_EQ(writer.write("text", 4), 4u);
  writer.close();
  char bytes[8];
  EXPECT_EQ(reader.read(bytes, sizeof bytes), 4u);
  EXPECT_EQ(std::string(bytes, 4), "text");
  EXPECT_EQ(reader.read(bytes, sizeof bytes), 0u);
}

TEST(PipeTest, BothEndsAreCloseOnExec) {
  const Ends ends(Pipe::make());
  EXPECT_TRUE(test::isCloseOnExec(ends.read.get()));
  EXPECT_TRUE(test::isCloseOnExec(ends.write.get()));
}

TEST(PipeTest, AnEndBlocksUnlessItIsNamed) {
  for (const bool reads : {false, true}) {
    for (const bool writes : {false, true}) {
      EnumBitset<Pipe::End> named;
      if (reads) named.set(Pipe::ReadEnd);
      if (writes) named.set(Pipe::WriteEnd);
      const Ends ends(Pipe::make(named));
      EXPECT_EQ(isNonBlocking(ends.read), reads);
      EXPECT_EQ(isNonBlocking(ends.write), writes);
      EXPECT_EQ(::fcntl(ends.read.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
      EXPECT_EQ(::fcntl(ends.write.get(), F_GETFL) & O_ACCMODE, O_WRONLY);
    }
  }
}

TEST(PipeTest, WhatCannotBeDoneAtOnceFailsAtAnEndThatDoesNotBlock) {
  const Ends ends(Pipe::make({Pipe::ReadEnd, Pipe::WriteEnd}));
  char bytes[4096] = {};
  EXPECT_EQ(::read(ends.read.get(), bytes, sizeof bytes), -1);
  EXPECT_EQ(errno, EAGAIN);
  ssize_t count = 0;
  while ((count = ::write(ends.write.get(), bytes, sizeof bytes)) > 0) {
  }
  EXPECT_EQ(count, -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(PipeTest, AFailureLeavesNoEndBehind) {
  const auto before = openDescriptors();
  for (int number = 1, struck = 1; struck == 1; ++number) {
    const Refuse refusing(Call::fcntl, EINVAL, test::nth(number));
    const auto raised = raisedBy([] { const Ends made(Pipe::make({Pipe::ReadEnd, Pipe::WriteEnd})); });
    struck = refusing.struck();
    EXPECT_EQ(raised.type, struck == 1 ? "kes::OsError" : "") << number;
    EXPECT_EQ(raised.errnum, struck == 1 ? EINVAL : 0) << number;
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(struck == 1 || number > 2) << "each end costs a call at least";
  }
}

}  // namespace
}  // namespace kes::fs
