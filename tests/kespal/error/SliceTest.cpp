// Errors that are copied, moved or caught by value into one of their bases.
#include <cstring>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>

#include "kespal/error/BadPermissionsError.h"
#include "kespal/error/DynError.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Access.h"

#ifndef __clang__
#pragma GCC diagnostic ignored "-Wcatch-value"  // to catch by value is the test
#endif

namespace kes {
namespace {

// Long enough to lie on the heap, where a text that is used after its end can be told.
const std::string longPath = "/a/path/that/is/longer/than/what/a/string/keeps/within/itself";
const std::string detail = ", streamed detail that is longer than what a string keeps within itself, 42";

template <typename Error>
constexpr bool isDyn = std::is_base_of_v<DynError, Error>;

/// What `stream() <<` adds to an error that has a stream.
enum class Detail { None, Streamed };
constexpr Detail bothWays[] = {Detail::None, Detail::Streamed};

/// A new error with a site, a backtrace and a cause.
template <typename Error>
std::unique_ptr<Error> newError(Detail streamed) {
  std::unique_ptr<Error> error;
  if constexpr (std::is_same_v<Error, BadPermissionsError>) {
    error = std::make_unique<Error>(longPath, fs::Access(0, 80, 0750), "the reason");
  } else if constexpr (std::is_base_of_v<FsError, Error>) {
    error = std::make_unique<Error>(longPath, ENOENT);
  } else if constexpr (std::is_base_of_v<OsError, Error>) {
    error = std::make_unique<Error>(ESRCH);
  } else {
    error = std::make_unique<Error>("the text");
  }
  if constexpr (isDyn<Error>) {
    if (streamed == Detail::Streamed) error->stream() << detail;
  }
  error->setSite({"src/some/File", 42, "function"});
  error->setBacktrace({"outer", "inner"});
  error->setNext(NoSuchFileError(longPath, ENOENT));
  return error;
}

/// What a base of an error has to say, put together by hand.
struct Said {
  std::string what, text, stack;
  bool operator==(const Said&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Said& said) {
  return stream << said.what << "\n--\n" << said.text << "\n--\n" << said.stack;
}

Said saidBy(const Exception& error) { return {error.what(), error.text(), error.exStack()}; }

std::string systemText(int errnum) { return std::strerror(errnum) + (" (" + std::to_string(errnum)) + ')'; }

/// The block of one error in exStack().
std::string block(int number, const std::string& what) {
  std::string text = "\n#" + std::to_string(number) + ")\n\t";
  for (char c : what) text += c == '\n' ? "\n\t" : std::string(1, c);
  return text + '\n';
}

/// What the part of `Derived` that is a `Base` says.
template <typename Derived, typename Base>
Said expected(Detail streamed) {
  const std::string where =
      "Exception occured at \"src/some/File:42 (function)\"\n\nFunction call "
      "backtrace:\n\ninner\nouter\n\n\n";
  std::string location = "At location: \"" + longPath + '"', what, text;
  if (std::is_same_v<Derived, BadPermissionsError>) {
    location += ": bad file permissions encountered: the reason\nPermissions of file are: 0:80 rwxr-x---";
  }
  if (streamed == Detail::Streamed) location += detail;
  if constexpr (std::is_same_v<Base, OsError>) {
    text = systemText(ESRCH);
    what = "System/Library call error: " + text;
  } else if constexpr (std::is_same_v<Base, StaticError>) {
    text = "the text";
    what = (std::is_same_v<Derived, UsageError> ? "Usage" : "Runtime") + (" error occured. " + text);
  } else {
    text = location;
    what = "File system error occured. " + location;
  }
  if constexpr (std::is_same_v<Base, FsError>) {
    const std::string reason = systemText(std::is_same_v<Derived, BadPermissionsError> ? EINVAL : ENOENT);
    text = longPath + ": " + reason;
    what += "\nReason: " + reason + '.';
  }
  const std::string cause =
      "File system error occured. At location: \"" + longPath + "\"\nReason: " + systemText(ENOENT) + '.';
  return {where + what, text, block(1, where + what) + block(2, cause)};
}

template <typename Derived, typename Base>
struct Slice {
  using From = Derived;
  using To = Base;
};

using Slices = testing::Types<
    Slice<NoSuchProcessError, OsError>, Slice<RuntimeError, StaticError>, Slice<UsageError, StaticError>,
    Slice<FsError, DynError>, Slice<BadPermissionsError, FsError>, Slice<BadPermissionsError, DynError>,
    Slice<ReadOnlyFileSystemError, FsError>, Slice<ReadOnlyFileSystemError, DynError>,
    Slice<NotSameDeviceError, FsError>, Slice<NotSameDeviceError, DynError>, Slice<FileAccessError, FsError>,
    Slice<FileAccessError, DynError>, Slice<NotASymlinkError, FsError>, Slice<NotASymlinkError, DynError>,
    Slice<FileExistsError, FsError>, Slice<FileExistsError, DynError>, Slice<IsASymlinkError, FsError>,
    Slice<IsASymlinkError, DynError>, Slice<FileBusyError, FsError>, Slice<FileBusyError, DynError>,
    Slice<NoSuchFileError, FsError>, Slice<NoSuchFileError, DynError>>;

template <typename T>
class SliceTest : public testing::Test {
 protected:
  using Derived = typename T::From;
  using Base = typename T::To;

  static std::unique_ptr<Derived> made(Detail streamed) { return newError<Derived>(streamed); }
  static Said wanted(Detail streamed) { return expected<Derived, Base>(streamed); }
};
TYPED_TEST_SUITE(SliceTest, Slices);

TYPED_TEST(SliceTest, ACopyOutlivesTheErrorThatItIsAPartOf) {
  for (Detail streamed : bothWays) {
    auto error = this->made(streamed);
    const typename TestFixture::Base slice(*error);
    error.reset();
    EXPECT_EQ(saidBy(slice), this->wanted(streamed));
  }
}

TYPED_TEST(SliceTest, AMovedOneOutlivesTheErrorThatItIsAPartOf) {
  for (Detail streamed : bothWays) {
    auto error = this->made(streamed);
    const typename TestFixture::Base slice(std::move(*error));
    error.reset();
    EXPECT_EQ(saidBy(slice), this->wanted(streamed));
  }
}

TYPED_TEST(SliceTest, AnErrorCaughtByTheValueOfItsBaseIsWhole) {
  for (Detail streamed : bothWays) {
    try {
      this->made(streamed)->raise();
    } catch (typename TestFixture::Base slice) {  // NOLINT(misc-throw-by-value-catch-by-reference)
      EXPECT_EQ(saidBy(slice), this->wanted(streamed));
    }
  }
}

TYPED_TEST(SliceTest, AnErrorThatHasExplainedItselfIsCopiedAndMovedAllTheSame) {
  for (Detail streamed : bothWays) {
    auto error = this->made(streamed);
    EXPECT_NE(error->what(), nullptr);
    const typename TestFixture::Base copied(*error), moved(std::move(*error));
    EXPECT_EQ(saidBy(copied), this->wanted(streamed));
    EXPECT_EQ(saidBy(moved), this->wanted(streamed));
  }
}

TYPED_TEST(SliceTest, ASliceIsClonedRaisedAndCopiedAsWhatItIs) {
  using Part = typename TestFixture::Base;
  for (Detail streamed : bothWays) {
    auto slice = std::make_unique<Part>(*this->made(streamed));
    const std::unique_ptr<Exception> clone(slice->clone());
    const Part copy(*slice);
    try {
      slice->raise();
    } catch (const Exception& caught) {
      slice.reset();
      const Exception& cloned = *clone;
      EXPECT_EQ(typeid(caught), typeid(Part));
      EXPECT_EQ(typeid(cloned), typeid(Part));
      EXPECT_EQ(saidBy(caught), this->wanted(streamed));
    }
    EXPECT_EQ(saidBy(*clone), this->wanted(streamed));
    EXPECT_EQ(saidBy(copy), this->wanted(streamed));
  }
}

TYPED_TEST(SliceTest, AThrowSiteThatKnowsOnlyTheBaseThrowsTheWholeError) {
  for (Detail streamed : bothWays) {
    auto error = this->made(streamed);
    const Said whole = saidBy(*error);
    typename TestFixture::Base& base = *error;
    try {
      raiseAt({"src/some/File", 42, "function"}, std::move(base));
    } catch (const Exception& caught) {
      EXPECT_EQ(typeid(caught), typeid(typename TestFixture::Derived));
      EXPECT_EQ(saidBy(caught), whole);
    }
  }
}

// --- the root, which only lends its name

TEST(RootTest, AnErrorIsRaisedByTheNameOfItsRoot) {
  NoSuchFileError error(longPath, ENOENT);
  Exception& root = error;
  try {
    raiseAt({"src/some/File", 42, "function"}, std::move(root));
  } catch (const NoSuchFileError& caught) {
    EXPECT_STREQ(caught.file(), "src/some/File");
    EXPECT_EQ(caught.path(), longPath);
  }
}

TEST(RootTest, WhatIsLeftOfAnErrorInAStandardExceptionIsThatOnesOwn) {
  try {
    raiseAt(KES_HERE, NoSuchFileError(longPath, ENOENT));
  } catch (std::exception slice) {  // NOLINT(misc-throw-by-value-catch-by-reference)
    EXPECT_STREQ(slice.what(), std::exception().what());
  }
}

// --- what was moved from

TEST(MovedFromErrorTest, ItIsWithoutTextPathAndCauseAndCanBeReadAndRaised) {
  for (Detail streamed : bothWays) {
    auto error = newError<NoSuchFileError>(streamed);
    EXPECT_NE(error->what(), nullptr);
    const NoSuchFileError moved(std::move(*error));
    EXPECT_EQ(saidBy(moved), (expected<NoSuchFileError, FsError>(streamed)));
    EXPECT_EQ(error->path(), "");
    EXPECT_EQ(error->next(), nullptr);
    EXPECT_EQ(error->text(), ": " + systemText(ENOENT));
    EXPECT_EQ(error->what(),
              "Exception occured at \"src/some/File:42 (function)\"\n\n"
              "File system error occured. \nReason: " +
                  systemText(ENOENT) + '.');
    EXPECT_THROW(error->raise(), NoSuchFileError);
    error->stream() << "anew";
    EXPECT_EQ(error->DynError::text(), "anew");
  }
}

TEST(MovedFromErrorTest, AnOrdinaryErrorStaysWhatItWas) {
  OsError error(ENOENT);
  const OsError moved(std::move(error));
  EXPECT_EQ(moved.text(), systemText(ENOENT));
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is the test
  EXPECT_EQ(error.text(), systemText(ENOENT));
}

}  // namespace
}  // namespace kes
