#include <fcntl.h>
#include <unistd.h>

#include "kespal/fs/CopierFixture.h"
#include "support/Calls.h"
#include "support/FileStatus.h"

namespace kes::fs {
namespace {

using test::Call;
using test::infoOf;
using test::modeOf;
using test::nth;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using ::testing::ElementsAre;

TEST_F(CopierTest, BorrowedStreamsStayOpenAndAreCopiedFromTheirStart) {
  test::writeFile(to_, "a longer old content");
  StreamFile in, out;
  in.open(from_.c_str(), File::READ);
  out.open(to_.c_str(), File::WRITE);
  in.seek(3);
  out.seek(5);
  const int inFd = in.fd(), outFd = out.fd();
  {
    Copier copier;
    copier.copy(in, out);
  }
  EXPECT_EQ(in.fd(), inFd);
  EXPECT_EQ(out.fd(), outFd);
  EXPECT_EQ(test::readFile(to_), "content");
  EXPECT_EQ(in.seek(0, StreamFile::FROM_CURRENT), 7u);
  EXPECT_EQ(out.write("!", 1), 1u);
  EXPECT_EQ(test::readFile(to_), "content!");
}

TEST_F(CopierTest, TheMixedFormsBorrowOneSide) {
  StreamFile in, out;
  in.open(from_.c_str(), File::READ);
  Copier().copy(in, to_.c_str());
  EXPECT_EQ(test::readFile(to_), "content");
  EXPECT_EQ(modeOf(to_), 0640u);
  EXPECT_EQ(in.seek(0), 0u);
  test::writeFile(from_, "changed");
  out.open(to_.c_str(), File::WRITE);
  Copier().copy(from_.c_str(), out);
  EXPECT_EQ(test::readFile(to_), "changed");
  EXPECT_EQ(out.seek(0), 0u);
}

TEST_F(CopierTest, AStreamAsSourceRespectsAnExistingTarget) {
  test::writeFile(to_, "old");
  StreamFile in;
  in.open(from_.c_str(), File::READ);
  EXPECT_EQ(raisedBy([&] { Copier().copy(in, to_.c_str()); }),
            (Raised{"kes::FsError", EEXIST, to_, fileSite, "open"}));
  EXPECT_EQ(test::readFile(to_), "old");
}

TEST_F(CopierTest, EveryFormMakesItsCalls) {
  StreamFile in, out;
  in.open(from_.c_str(), File::READ);
  out.open(to_.c_str(), File::READ_WRITE, File::CREATE);
  const auto calls = [](const std::function<void()>& run) {
    const test::CallTrace trace;
    run();
    return trace.calls();
  };
  EXPECT_THAT(calls([&] { Copier().copy(in, out); }),
              ElementsAre("lseek", "fstat", "lseek", "fstat", "ftruncate", "read", "write", "read"));
  EXPECT_THAT(calls([&] { Copier().copy(from_.c_str(), out); }),
              ElementsAre("open", "fstat", "lseek", "fstat", "ftruncate", "read", "write", "read", "close"));
  EXPECT_THAT(calls([&] { Copier(nullptr, 0, Flags::OVERWRITE).copy(in, to_.c_str()); }),
              ElementsAre("lseek", "fstat", "stat", "open", "read", "write", "read", "close"));
}

TEST_F(CopierTest, BorrowedStreamsStayOpenWhateverFails) {
  test::writeFile(to_, "old");
  StreamFile in, out;
  in.open(from_.c_str(), File::READ);
  out.open(to_.c_str(), File::READ_WRITE);
  const std::vector<std::pair<Call, const char*>> table = {
      {Call::lseek, "seek"},           {Call::fstat, "get"}, {Call::ftruncate, "truncate"},
      {Call::fchmod, "setAccessPriv"}, {Call::read, "read"}, {Call::write, "write"}};
  for (const auto& [call, operation] : table) {
    Raised raised;
    {
      const Refuse failing(call, EIO);
      Copier copier(nullptr, 0, Flags::COPY_ACCESS);
      raised = raisedBy([&] { copier.copy(in, out); });
    }
    EXPECT_EQ(raised.type, "kes::OsError");
    EXPECT_EQ(raised.errnum, EIO);
    EXPECT_EQ(raised.function, operation);
    EXPECT_EQ(in.seek(0), 0u) << infoOf(call).name;
    EXPECT_EQ(out.seek(0), 0u) << infoOf(call).name;
  }
}

TEST_F(CopierTest, WhatWasOpenedByNameIsClosedWhateverFails) {
  const auto before = openDescriptors();
  for (const Call call :
       {Call::open, Call::fstat, Call::fchmod, Call::fchown, Call::read, Call::write, Call::close}) {
    for (int skip = 0; skip < 3; ++skip) {
      Copier copier(nullptr, 0, {Flags::OVERWRITE, Flags::COPY_ACCESS});
      {
        const Refuse failing(call, EIO, nth(skip + 1));
        raisedBy([&] { copier.copy(from_.c_str(), to_.c_str()); });
      }
      EXPECT_EQ(openDescriptors(), before) << infoOf(call).name << " after " << skip;
      EXPECT_EQ(raisedBy([&] { copier.copy(from_.c_str(), to_.c_str()); }), Raised{})
          << "it can be used again";
    }
  }
}

TEST_F(CopierTest, AFailingCloseIsAnOsErrorAndBothAreClosed) {
  for (const int skip : {0, 1}) {
    const Refuse failing(Call::close, EIO, nth(skip + 1));
    EXPECT_EQ(copying(Flags::OVERWRITE), (Raised{"kes::OsError", EIO, "", fileSite, "close"}));
  }
}

TEST_F(CopierTest, AFailingCloseIsAnOsErrorOfTheMixedFormsToo) {
  StreamFile in, out;
  in.open(from_.c_str(), File::READ);
  out.open(to_.c_str(), File::READ_WRITE, File::CREATE);
  const Raised error{"kes::OsError", EIO, "", fileSite, "close"};
  const Refuse failing(Call::close, EIO);
  EXPECT_EQ(raisedBy([&] { Copier().copy(from_.c_str(), out); }), error);
  EXPECT_EQ(raisedBy([&] { Copier(nullptr, 0, Flags::OVERWRITE).copy(in, to_.c_str()); }), error);
}

TEST_F(CopierTest, AStreamThatIsNotOpenIsTheSystemsError) {
  StreamFile closed, open;
  open.open(from_.c_str(), File::READ);
  EXPECT_EQ(raisedBy([&] { Copier().copy(closed, to_.c_str()); }),
            (Raised{"kes::OsError", EBADF, "", streamSite, "seek"}));
  EXPECT_EQ(raisedBy([&] { Copier().copy(open, closed); }),
            (Raised{"kes::OsError", EBADF, "", streamSite, "seek"}));
}

TEST_F(CopierTest, APipeCannotBeBorrowed) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  Pipe pipe{ends[0], ends[1]};
  StreamFile in, out;
  in.open(pipe, true);
  out.open(pipe, false);
  EXPECT_EQ(raisedBy([&] { Copier().copy(in, to_.c_str()); }),
            (Raised{"kes::OsError", ESPIPE, "", streamSite, "seek"}));
  EXPECT_EQ(raisedBy([&] { Copier().copy(from_.c_str(), out); }).errnum, ESPIPE);
}

}  // namespace
}  // namespace kes::fs
