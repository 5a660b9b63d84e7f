#include "kespal/fs/File.h"

#include <unistd.h>

#include <atomic>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/fs/CancelledWithin.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/DyingWithoutMemory.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::inChild;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* site = "src/os/posix/fs/File";

TEST(FileEndTest, AFailingCloseIsAnOsErrorAndHoldsNothingAfterwards) {
  for (const int errnum : {EIO, EINTR, EDQUOT}) {
    File file;
    file.open("/dev/null", File::READ);
    const Refuse failing(Call::close, errnum);
    EXPECT_EQ(raisedBy([&] { file.close(); }), (Raised{"kes::OsError", errnum, "", site, "close"}));
    EXPECT_EQ(file.fd(), -1);
    EXPECT_EQ(raisedBy([&] { file.close(); }), Raised{}) << "nothing is closed twice";
  }
}

TEST(FileEndTest, ADestructorReportsWithoutMemoryAndThroughABrokenStream) {
  const auto make = [] {
    auto* const file = new File;
    file->open("/dev/null", File::READ);
    return file;
  };
  test::expectReportOfDying(Call::close, make, "Error closing file:\n\n");
}

TEST(FileEndTest, ADestructorReportsAFailingCloseOnStandardError) {
  const auto child = inChild([] {
    File file;
    file.open("/dev/null", File::READ);
    const Refuse* failing = new Refuse(Call::close, EIO);
    file.~File();
    delete failing;
    new (&file) File;
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_THAT(child.err,
              StartsWith("Error closing file:\n\n\n#1)\n\tException occured at \"src/os/posix/fs/File:"));
  EXPECT_THAT(child.err, EndsWith("\tSystem/Library call error: " + OsError(EIO).text() + "\n\n"));
  EXPECT_THAT(child.err, HasSubstr(" (close)\""));
}

TEST(FileEndTest, AnyOtherExceptionInADestructorEndsTheProgram) {
  const auto closeThrowing = [] {
    const test::Before closing(Call::close, [] { throw std::runtime_error("none of ours"); });
    File file;
    file.open("/dev/null", File::READ);
  };
  EXPECT_DEATH(closeThrowing(), "terminat");
}

TEST(FileEndTest, ACancelledThreadClosesItsFilesBeforeItEnds) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not follow the unwinding of a cancelled thread");
  const auto before = openDescriptors();
  for (const bool explicitly : {false, true}) {
    std::atomic<bool> closed = false;
    std::thread thread([&] {
      {
        File file;
        file.open("/dev/null", File::READ);
        ::pthread_cancel(::pthread_self());
        // Closing is where a cancellation would begin: it would leave the descriptor open, and out of a
        // destructor it would end the program.
        if (explicitly) file.close();
      }
      closed = true;
      ::pthread_testcancel();
      ADD_FAILURE() << "not cancelled";
    });
    thread.join();
    EXPECT_TRUE(closed) << explicitly;
    EXPECT_EQ(openDescriptors(), before) << explicitly;
  }
}

TEST(FileEndTest, ACancellationWhileATemporaryFileIsMadeLeavesNone) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  const TempDir folder;
  const auto before = openDescriptors();
  EXPECT_TRUE(test::cancelledWithin(Call::mkostemp, 1, [&folder] {
    File file;
    std::string name = folder / "temporary";
    file.open(File::TempType(), name);
    ::unlink(name.c_str());
  }));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(Dir::isEmpty(folder.path().c_str()));
}

}  // namespace
}  // namespace kes::fs
