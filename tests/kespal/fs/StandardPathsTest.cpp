#include "kespal/fs/StandardPaths.h"

#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "kespal/fs/CancelledWithin.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::inChild;
using test::TempDir;

namespace stdfs = std::filesystem;

/// The answers depend on the environment: each question is asked in a child with exactly the variables given.
class StandardPathsTest : public ::testing::Test {
 protected:
  using Variables = std::map<std::string, std::string>;

  static std::string asked(Path (*question)(), const Variables& variables) {
    const auto child = inChild([&] {
      ::clearenv();
      for (const auto& [name, value] : variables) ::setenv(name.c_str(), value.c_str(), 1);
      std::cout << question();
      return 0;
    });
    return child.exitCode() == 0 ? child.out : "failed: " + child.err;
  }
  static std::string databaseHome() { return ::getpwuid(::getuid())->pw_dir; }

  const TempDir folder_;
  const std::string home_ = folder_.path();
};

TEST_F(StandardPathsTest, UserDataFollowsItsVariableElseTheHome) {
  EXPECT_EQ(asked(StandardPaths::userDataDir, {{"HOME", "/h"}, {"XDG_DATA_HOME", "/data/"}}), "/data");
  EXPECT_EQ(asked(StandardPaths::userDataDir, {{"HOME", "/h"}}), "/h/.local/share");
  EXPECT_EQ(asked(StandardPaths::userDataDir, {{"HOME", "/h"}, {"XDG_DATA_HOME", ""}}), "/h/.local/share");
}

TEST_F(StandardPathsTest, RelativeValuesAreIgnored) {
  const Variables relative = {{"HOME", "/h"},
                              {"XDG_DATA_HOME", "data"},
                              {"XDG_STATE_HOME", "./state"},
                              {"XDG_CONFIG_HOME", "config"},
                              {"XDG_RUNTIME_DIR", "."}};
  EXPECT_EQ(asked(StandardPaths::userDataDir, relative), "/h/.local/share");
  EXPECT_EQ(asked(StandardPaths::userLogDir, relative), "/h/.local/state/Logs");
  EXPECT_EQ(asked(StandardPaths::documentsDir, relative), "/h/Documents");
  EXPECT_EQ(asked(StandardPaths::userTempDir, relative), "/tmp");
}

TEST_F(StandardPathsTest, WithoutHomeTheUserDatabaseIsAsked) {
  EXPECT_EQ(asked(StandardPaths::userDataDir, {}), databaseHome() + "/.local/share");
  EXPECT_EQ(asked(StandardPaths::userDataDir, {{"HOME", ""}}), databaseHome() + "/.local/share");
  EXPECT_EQ(asked(StandardPaths::documentsDir, {{"HOME", "not/absolute"}}), databaseHome() + "/Documents");
}

TEST_F(StandardPathsTest, UserLogsFollowTheStateVariableElseTheHome) {
  EXPECT_EQ(asked(StandardPaths::userLogDir, {{"HOME", "/h"}, {"XDG_STATE_HOME", "/state"}}), "/state/Logs");
  EXPECT_EQ(asked(StandardPaths::userLogDir, {{"HOME", "/h"}}), "/h/.local/state/Logs");
}

TEST_F(StandardPathsTest, ASlashAtTheEndOfAVariableIsNotDoubled) {
  const Variables slashes = {{"HOME", "/h/"}, {"XDG_STATE_HOME", "/state//"}};
  EXPECT_EQ(asked(StandardPaths::userLogDir, slashes), "/state/Logs");
  EXPECT_EQ(asked(StandardPaths::userDataDir, slashes), "/h/.local/share");
  EXPECT_EQ(asked(StandardPaths::documentsDir, slashes), "/h/Documents");
}

TEST_F(StandardPathsTest, SystemLogsAreInOnePlace) {
  EXPECT_EQ(asked(StandardPaths::logDir, {}), "/var/log");
}

/// One form of a configuration, and the directory that it tells, with ~ for the home directory.
struct Form {
  const char* name;
  const char* configuration;
  const char* answer;
};
void PrintTo(const Form& form, std::ostream* out) { *out << form.name; }

class DocumentsTest : public StandardPathsTest, public ::testing::WithParamInterface<Form> {};

TEST_P(DocumentsTest, AreWhereTheConfigurationSays) {
  const Form& form = GetParam();
  stdfs::create_directory(home_ + "/.config");
  test::writeFile(home_ + "/.config/user-dirs.dirs", form.configuration);
  std::string expected = form.answer;
  if (const auto at = expected.find('~'); at != std::string::npos) expected.replace(at, 1, home_);
  EXPECT_EQ(asked(StandardPaths::documentsDir, {{"HOME", home_}}), expected) << form.configuration;
}

INSTANTIATE_TEST_SUITE_P(
    EveryForm, DocumentsTest,
    ::testing::Values(
        Form{"InTheHomeDirectory", "XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n", "~/Papers"},
        Form{"Elsewhere", "XDG_DOCUMENTS_DIR=\"/srv/papers\"\n", "/srv/papers"},
        Form{"WithoutANewline", "XDG_DOCUMENTS_DIR=\"$HOME/no newline\"", "~/no newline"},
        Form{"WithBlanksASlashAndARemark", "  XDG_DOCUMENTS_DIR = \"/srv/papers/\" # mine\n", "/srv/papers"},
        Form{"WithEscapes", "XDG_DOCUMENTS_DIR=\"$HOME/a\\\"b\\\\c\"\n", "~/a\"b\\c"},
        Form{"NeverClosed", "XDG_DOCUMENTS_DIR=\"/never closed\nXDG_MUSIC_DIR=\"/m\"\n", "/never closed"},
        Form{"ABackslashAtItsEnd", "XDG_DOCUMENTS_DIR=\"/protects nothing\\\n", "/protects nothing\\"},
        Form{"TheHomeDirectory", "XDG_DOCUMENTS_DIR=\"$HOME\"\n", "~"},
        Form{"TheHomeDirectoryWithASlash", "XDG_DOCUMENTS_DIR=\"$HOME/\"\n", "~"},
        Form{"TheLastOfTwo", "XDG_DOCUMENTS_DIR=\"/1\"\nXDG_DOCUMENTS_DIR=\"/2\"\n", "/2"},
        Form{"TheLastThatIsGood", "XDG_DOCUMENTS_DIR=\"/1\"\nXDG_DOCUMENTS_DIR=\"relative\"\n", "/1"},
        Form{"Relative", "XDG_DOCUMENTS_DIR=\"papers\"\n", "~/Documents"},
        Form{"Unquoted", "XDG_DOCUMENTS_DIR=/unquoted\n", "~/Documents"},
        Form{"OfALongerVariable", "XDG_DOCUMENTS_DIR=\"$HOMER/x\"\n", "~/Documents"},
        Form{"AsARemark", "#XDG_DOCUMENTS_DIR=\"/commented\"\n", "~/Documents"},
        Form{"ForAnotherDirectory", "XDG_DOWNLOAD_DIR=\"/downloads\"\n", "~/Documents"},
        Form{"ForALongerName", "XDG_DOCUMENTS_DIRS=\"/others\"\n", "~/Documents"},
        Form{"Empty", "", "~/Documents"}));

TEST_F(StandardPathsTest, TheConfigurationIsReadWhereItsVariableSays) {
  test::writeFile(home_ + "/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
  EXPECT_EQ(asked(StandardPaths::documentsDir, {{"HOME", "/h"}, {"XDG_CONFIG_HOME", home_}}), "/h/Papers");
  EXPECT_EQ(asked(StandardPaths::documentsDir, {{"HOME", "/h"}}), "/h/Documents");
}

/// What a program started while the configuration is read would inherit.
std::size_t inherited = 0;

void countInheritable() {
  for (const std::string& descriptor : test::openDescriptors()) {
    if (!test::isCloseOnExec(std::stoi(descriptor)) && std::stoi(descriptor) > 2) ++inherited;
  }
}

TEST_F(StandardPathsTest, TheConfigurationIsReadThroughADescriptorThatNoProgramInherits) {
  stdfs::create_directory(home_ + "/.config");
  test::writeFile(home_ + "/.config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/papers\"\n");
  const auto child = inChild([&] {
    ::clearenv();
    ::setenv("HOME", home_.c_str(), 1);
    countInheritable();
    const std::size_t before = std::exchange(inherited, 0);
    const test::Before whileReading(test::Call::read, countInheritable);
    std::cout << StandardPaths::documentsDir() << ' ' << (inherited == before ? "none" : "some") << ' ';
    const test::CallTrace trace;
    StandardPaths::documentsDir();
    const auto calls = trace.calls();
    return std::count(calls.begin(), calls.end(), "read") > 0 ? 0 : 1;
  });
  EXPECT_EQ(child.out, "/srv/papers none ");
  EXPECT_EQ(child.exitCode(), 0) << "the reading was not seen";
}

TEST_F(StandardPathsTest, AConfigurationThatIsAPipeIsNotWaitedFor) {
  stdfs::create_directory(home_ + "/.config");
  ASSERT_EQ(::mkfifo((home_ + "/.config/user-dirs.dirs").c_str(), 0600), 0);
  const auto child = inChild([&] {
    ::clearenv();
    ::setenv("HOME", home_.c_str(), 1);
    ::alarm(30);
    std::cout << StandardPaths::documentsDir();
    return 0;
  });
  EXPECT_EQ(child.out, home_ + "/Documents") << child.err;
}

TEST_F(StandardPathsTest, ACancellationWhileTheConfigurationIsOpenedLosesNoDescriptor) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  const auto before = test::openDescriptors();
  ::setenv("XDG_CONFIG_HOME", home_.c_str(), 1);
  test::writeFile(home_ + "/user-dirs.dirs", "");
  EXPECT_TRUE(test::cancelledWithin(test::Call::open, 1, [] { StandardPaths::documentsDir(); }));
  ::unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(StandardPathsTest, AConfigurationThatCannotBeReadSaysNothing) {
  stdfs::create_directories(home_ + "/.config/user-dirs.dirs");
  EXPECT_EQ(asked(StandardPaths::documentsDir, {{"HOME", home_}}), home_ + "/Documents");
}

TEST_F(StandardPathsTest, TheTemporaryDirectoryFollowsItsVariableIfThatExists) {
  EXPECT_EQ(asked(StandardPaths::tempDir, {}), "/tmp");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", home_ + '/'}}), home_);
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", home_ + "/absent"}}), "/tmp");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", ""}}), "/tmp");
}

TEST_F(StandardPathsTest, TheTemporaryDirectoryFollowsLinksAndMayBeAnythingThatExists) {
  stdfs::create_symlink(home_, home_ + "/link");
  stdfs::create_symlink("absent", home_ + "/dangling");
  test::writeFile(home_ + "/file", "");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", home_ + "/link"}}), home_ + "/link");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", home_ + "/dangling"}}), "/tmp");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", home_ + "/file"}}), home_ + "/file");
}

TEST_F(StandardPathsTest, ATemporaryDirectoryThatCannotBeExaminedDoesNotExist) {
  test::writeFile(home_ + "/file", "");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", home_ + "/file/below"}}), "/tmp");
  EXPECT_EQ(asked(StandardPaths::tempDir, {{"TMPDIR", "/" + std::string(5000, 'x')}}), "/tmp");
}

TEST_F(StandardPathsTest, TheUsersTemporaryDirectoryMustBeADirectoryOfOurs) {
  const auto runtime = [&](const std::string& value) {
    return asked(StandardPaths::userTempDir, {{"XDG_RUNTIME_DIR", value}, {"TMPDIR", "/var/tmp"}});
  };
  stdfs::create_directory(home_ + "/own");
  test::writeFile(home_ + "/file", "");
  EXPECT_EQ(runtime(home_ + "/own"), home_ + "/own");
  EXPECT_EQ(runtime(home_ + "/file"), "/var/tmp");
  EXPECT_EQ(runtime(home_ + "/absent"), "/var/tmp");
  EXPECT_EQ(asked(StandardPaths::userTempDir, {}), "/tmp");
  if (::geteuid() != 0) GTEST_SKIP() << "only root makes a directory of another owner";
  ASSERT_EQ(::chown((home_ + "/own").c_str(), 4711, 4711), 0);
  EXPECT_EQ(runtime(home_ + "/own"), "/var/tmp");
}

TEST_F(StandardPathsTest, NothingIsCreated) {
  const std::string data = asked(StandardPaths::userDataDir, {{"HOME", home_}});
  const std::string logs = asked(StandardPaths::userLogDir, {{"HOME", home_}});
  EXPECT_TRUE(stdfs::is_empty(home_)) << data << logs;
}

}  // namespace
}  // namespace kes::fs
