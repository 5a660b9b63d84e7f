#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "kespal/fs/Access.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/FewDescriptors.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

// A tree is removed by the types that come with the names. That must not show: random trees, with links in
// all directions and with directories that refuse, are removed beside a plain walk by paths.

namespace kes::fs {
namespace {

using test::Raised;
using test::TempDir;

namespace stdfs = std::filesystem;

/// Looks at every entry by its path, links followed, and then removes it by its path.
void removePlainly(const std::string& path) {
  std::vector<std::string> names;
  for (Dir dir(path.c_str()); dir.nextEntry();) names.emplace_back(dir.entryName());
  for (const std::string& name : names) {
    const std::string entry = path + '/' + name;
    Info::get(entry.c_str(), /*follow=*/true).isDir() ? removePlainly(entry) : Ops::removeFile(entry.c_str());
  }
  Ops::removeDir(path.c_str());
}

/// The same tree for the same seed. What its links lead to lies in it or beside it.
class RandomTree {
 public:
  RandomTree(const std::string& path, unsigned seed) : random_(seed) {
    stdfs::create_directory(path);
    fill(path, /*levels=*/4);
    for (const auto& [directory, mode] : modes_) ::chmod(directory.c_str(), mode);
  }

 private:
  template <typename Choice, std::size_t Size>
  Choice oneOf(const Choice (&choices)[Size]) {
    return choices[random_() % Size];
  }

  void fill(const std::string& path, int levels) {
    for (char name = 'a', end = static_cast<char>('a' + random_() % 5); name != end; ++name) {
      addEntry(path + '/' + name, levels);
    }
  }

  void addEntry(const std::string& path, int levels) {
    switch (random_() % (levels > 1 ? 8 : 4)) {
      case 0:
      case 1:
        return test::writeFile(path, "");
      case 2:
        return Ops::makeFifo(path, Access(0600));
      case 3:
        return Ops::symlink(path.c_str(), oneOf({"a", "c", "../b", "absent", "..", ".", "../../outside"}));
      default:
        stdfs::create_directory(path);
        fill(path, levels - 1);
        modes_.emplace_back(path, oneOf({0755, 0755, 0755, 0755, 0555, 0444, 0333, 0000, 0666}));
    }
  }

  std::mt19937 random_;
  std::vector<std::pair<std::string, mode_t>> modes_;
};

/// What is below a directory, a line each, after its owner was let into everything.
std::string listing(const std::string& path) {
  std::vector<std::string> lines;
  for (stdfs::recursive_directory_iterator at(path), end; at != end; ++at) {
    if (!at->is_symlink() && at->is_directory()) stdfs::permissions(*at, stdfs::perms::owner_all);
    lines.push_back(at->path().string().substr(path.size()) + '\n');
  }
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

/// What a way to remove a tree raises, and what it leaves.
std::string outcome(const std::string& path, unsigned seed,
                    const std::function<void(const std::string&)>& way) {
  stdfs::create_directories(path + "/outside/below");
  const RandomTree tree(path + "/tree", seed);
  const Raised raised = test::raisedBy([&] { way(path + "/tree"); });
  std::ostringstream text;
  text << raised << '\n' << listing(path);
  stdfs::remove_all(path);
  return text.str();
}

void removeOurWay(const std::string& tree) { Ops::removeTree(tree.c_str()); }

/// So that every directory above the one that the walk is in has to be opened again.
void removeOurWayWithOneDescriptor(const std::string& tree) {
  const test::FewDescriptors few(1);
  removeOurWay(tree);
}

/// Removes trees in both ways, and prints how often something was raised, and every difference.
int compareWays(const std::string& folder, void (*ourWay)(const std::string&) = removeOurWay) {
  const std::string path = folder + "/here";
  unsigned failed = 0;
  for (unsigned seed = 0; seed < 400; ++seed) {
    const std::string plain = outcome(path, seed, removePlainly);
    const std::string ours = outcome(path, seed, ourWay);
    if (!plain.starts_with("nothing raised")) ++failed;
    if (ours != plain) std::cout << "seed " << seed << "\nplainly: " << plain << "but: " << ours;
  }
  return failed > 50 && failed < 350 ? 0 : 1;
}

TEST(TreeModelTest, ARemovalByTypesRaisesAndLeavesWhatAPlainOneDoes) {
  const TempDir folder(test::inMemory());
  const auto child = test::inChild([&] { return compareWays(folder.path()); });
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(child.exitCode(), 0) << "some trees can be removed and some cannot: " << child.err;
}

TEST(TreeModelTest, ARemovalWithOneDescriptorRaisesAndLeavesWhatAPlainOneDoes) {
  const TempDir folder(test::inMemory());
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  for (const auto& in : {test::inChild, test::asNobody}) {
    const auto child = in([&] { return compareWays(folder.path(), removeOurWayWithOneDescriptor); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.exitCode(), 0) << "some trees can be removed and some cannot: " << child.err;
  }
}

TEST(TreeModelTest, ARemovalByTypesIsRefusedToNobodyAsAPlainOneIs) {
  const TempDir folder(test::inMemory());
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  const auto child = test::asNobody([&] { return compareWays(folder.path()); });
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(child.exitCode(), 0) << "some trees can be removed and some cannot: " << child.err;
}

}  // namespace
}  // namespace kes::fs
