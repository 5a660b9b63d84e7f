// The environment of a child, and the search for its program.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>

#include "kespal/proc/ChildFixture.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace kes::proc {
namespace {

using Texts = std::list<std::string>;
using test::TempDir;

/// What a program writes, and how it ends.
test::ChildResult run(const std::function<void(Child&)>& setUp) {
  return test::inChild([&] {
    time::ClockBase::init();
    Child child;
    setUp(child);
    child.create();
    const int code = WEXITSTATUS(child.wait().status);
    if (const auto failure = child.startFailure()) std::printf("%s", failure->text().c_str());
    std::fflush(stdout);
    Child::exit();
    return code;
  });
}

struct ChildEnvironmentTest : ChildTest {
  /// A program of this name that says where it lies, and what its first argument is.
  std::string program(const std::string& name, const std::string& folder, ::mode_t mode = 0755) const {
    ::mkdir((dir / folder).c_str(), 0755);
    std::string path = dir / (folder + '/' + name);
    test::writeFile(path, "#!/bin/sh\necho " + folder + "\n");
    ::chmod(path.c_str(), mode);
    return path;
  }

  const TempDir dir;
};

TEST_F(ChildEnvironmentTest, CanBeTrulyEmpty) {
  const auto result = run([](Child& child) {
    child.setArguments({"/usr/bin/env"});
    child.clearEnvironment();
  });
  EXPECT_EQ(result.out, "") << result.err;
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(ChildEnvironmentTest, IsInheritedUntilItIsCleared) {
  const auto kept = [](const std::function<void(Child&)>& setUp) {
    ::setenv("KES_KEPT", "yes", 1);
    const auto result = run([&](Child& child) {
      child.setArguments({"/bin/sh", "-c", "echo ${KES_KEPT-no} ${OWN-none}"});
      setUp(child);
    });
    ::unsetenv("KES_KEPT");
    return result.out;
  };
  EXPECT_EQ(kept([](Child&) {}), "yes none\n");
  EXPECT_EQ(kept([](Child& child) { child.setEnvironment({"OWN=1"}); }), "no 1\n");
  EXPECT_EQ(kept([](Child& child) {
              child.setEnvironment({"OWN=1"});
              child.clearEnvironment();
            }),
            "no none\n");
  EXPECT_EQ(kept([](Child& child) {
              child.clearEnvironment();
              child.setEnvironment({"OWN=2"});
            }),
            "no 2\n");
  EXPECT_EQ(kept([](Child& child) {
              child.clearEnvironment();
              child.setEnvironment({});
            }),
            "yes none\n");
}

TEST_F(ChildEnvironmentTest, WhenItIsEmptyAProgramIsStillFoundAlongOurPath) {
  const auto result = run([](Child& child) {
    child.setArguments({"env"});
    child.clearEnvironment();
  });
  EXPECT_EQ(result.out, "") << result.err;
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(ChildEnvironmentTest, ItsPathIsNotSearchedUnlessAsked) {
  program("kes-hidden", "own");
  const auto search = [&](bool own) {
    return run([&](Child& child) {
      child.setArguments({"kes-hidden"});
      child.setEnvironment({"A=1", "PATH=" + dir / "none:" + dir / "own"});
      child.setSearchOwnPath(own);
    });
  };
  EXPECT_EQ(search(false).out, "exec: No such file or directory (2)");
  EXPECT_EQ(search(true).out, "own\n");
}

TEST_F(ChildEnvironmentTest, AProgramIsTakenFromTheFirstPlaceWhereItMayBeExecuted) {
  program("kes-tool", "refused", 0644);
  program("kes-tool", "first");
  program("kes-tool", "second");
  const auto search = [&](const std::string& path) {
    return run([&](Child& child) {
      child.setArguments({"kes-tool"});
      child.setEnvironment({"PATH=" + path, "PATH=" + dir / "second"});
      child.setSearchOwnPath(true);
    });
  };
  EXPECT_EQ(search(dir / "refused:" + dir / "absent:" + dir / "first:" + dir / "second").out, "first\n");
  EXPECT_EQ(search(dir / "first/kes-tool:" + dir / "second").out, "second\n") << "a file is no directory";
  EXPECT_EQ(search(dir / "absent").out, "exec: No such file or directory (2)") << "the first PATH counts";
  EXPECT_EQ(search(dir / "absent:" + dir / "refused:" + dir / "none").out, "exec: Permission denied (13)");
}

TEST_F(ChildEnvironmentTest, AFileThatIsNoProgramEndsTheSearchOfItsOwnPath) {
  test::writeFile(program("kes-tool", "broken"), "no program");
  program("kes-tool", "good");
  const auto result = run([&](Child& child) {
    child.setArguments({"kes-tool"});
    child.setEnvironment({"PATH=" + dir / "broken:" + dir / "good"});
    child.setSearchOwnPath(true);
  });
  EXPECT_EQ(result.out, "exec: Exec format error (8)");
}

TEST_F(ChildEnvironmentTest, WithoutAPathOfItsOwnAProgramIsNotFound) {
  for (const Texts& environment : {Texts{"A=1"}, Texts{"PATH="}, Texts{"PATH=::"}, Texts{}}) {
    const auto result = run([&](Child& child) {
      child.setArguments({"env"});
      child.setEnvironment(environment);
      if (environment.empty()) child.clearEnvironment();
      child.setWorkingDirectory("/usr/bin");
      child.setSearchOwnPath(true);
    });
    EXPECT_EQ(result.out, "exec: No such file or directory (2)");
    EXPECT_EQ(result.exitCode(), 125);
  }
}

TEST_F(ChildEnvironmentTest, AProgramWithASlashIsNotSearched) {
  program("kes-tool", "here");
  const auto start = [&](const std::string& name) {
    return run([&](Child& child) {
             child.setArguments({name});
             child.setEnvironment({"PATH=" + dir.path()});
             child.setWorkingDirectory(dir.path());
             child.setSearchOwnPath(true);
           })
        .out;
  };
  EXPECT_EQ(start("./here/kes-tool"), "here\n");
  EXPECT_EQ(start(dir / "here/kes-tool"), "here\n");
  EXPECT_EQ(start("./kes-tool"), "exec: No such file or directory (2)");
}

TEST_F(ChildEnvironmentTest, ASearchOfItsOwnPathLeavesTheFirstArgumentAsItWas) {
  const auto nameSeen = [](bool own) {
    return run([own](Child& child) {
             child.setArguments({"sh", "-c", "echo $0"});
             child.setEnvironment({"PATH=/bin"});
             child.setSearchOwnPath(own);
           })
        .out;
  };
  EXPECT_EQ(nameSeen(true), "sh\n");
  EXPECT_TRUE(nameSeen(false).ends_with("/sh\n"));
}

TEST_F(ChildEnvironmentTest, AnInheritedOneIsSearchedAsEver) {
  const auto result = run([](Child& child) {
    child.setArguments({"sh", "-c", "echo found"});
    child.setSearchOwnPath(true);
  });
  EXPECT_EQ(result.out, "found\n");
}

}  // namespace
}  // namespace kes::proc
