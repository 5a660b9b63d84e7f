// Moves a directory tree to another place, on another device if need be, file by file, and goes on where a
// single file cannot be moved: every kind of failure is a class of its own.
//
//   move_tree FROM TO     moves FROM to TO
//   move_tree             shows it on a tree of its own, from /tmp to /dev/shm where there is one
#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include "kespal/error/FsError.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/File.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"

namespace {

using kes::fs::Access;
using kes::fs::Dir;
using kes::fs::File;
using kes::fs::Info;
using kes::fs::Ops;
using kes::fs::Path;

class TreeMover {
 public:
  void move(const Path& from, const Path& to) {
    const Access access = Info::get(from.c_str(), /*follow=*/false).access();
    Ops::tryMakedirs(to.c_str(), &access);
    for (const std::string& name : entriesOf(from)) moveEntry(from + name, to + name);
    if (Dir::isEmpty(from.c_str())) Ops::removeDir(from.c_str());
  }

  int moved() const { return moved_; }
  int stayed() const { return stayed_; }

 private:
  /// All names first: a directory is no good to read while its entries go away.
  static std::vector<std::string> entriesOf(const Path& path) {
    std::vector<std::string> names;
    for (Dir dir(path.c_str()); dir.nextEntry();) names.emplace_back(dir.entryName());
    return names;
  }

  void moveEntry(const Path& from, const Path& to) {
    try {
      const Info info = Info::get(from.c_str(), /*follow=*/false);
      if (info.isDir()) return move(from, to);
      info.isLink() ? moveLink(from, to) : Ops::move(from.c_str(), to.c_str());
      ++moved_;
    } catch (const kes::FileAccessError& error) {
      leave("no right to move ", error);
    } catch (const kes::NoSuchFileError& error) {
      leave("gone meanwhile: ", error);
    } catch (const kes::ReadOnlyFileSystemError& error) {
      leave("read-only: ", error);
    } catch (const kes::OsError& error) {
      leave(error.errnum() == EEXIST ? "target exists: " + to + ": " : to + ": ", error);
    } catch (const kes::FsError& error) {
      leave("not moved: ", error);
    }
  }

  static void moveLink(const Path& from, const Path& to) {
    std::string target;
    Ops::readlink(from.c_str(), target);
    Ops::symlink(to.c_str(), target.c_str());
    Ops::removeFile(from.c_str());
  }

  void leave(const std::string& why, const kes::Exception& error) {
    std::cout << why << error.text() << '\n';
    ++stayed_;
  }

  int moved_ = 0;
  int stayed_ = 0;
};

void write(const Path& path) { File().open(path.c_str(), File::WRITE, File::CREATE); }

/// Four files and a link that can be moved, and a file whose place is taken.
int demonstrate() {
  std::string from = "/tmp/move-tree-",
              to = Ops::exists("/dev/shm", true) ? "/dev/shm/move-tree-" : "/tmp/moved-tree-";
  Ops::tempdir(from);
  Ops::tempdir(to);
  const Path source(from), target(to);
  Ops::makedirs((source + "docs/old").c_str());
  for (const char* name : {"readme", "docs/1", "docs/2", "docs/old/3", "taken"}) write(source + name);
  Ops::symlink((source + "link").c_str(), "docs/1");
  write(target + "taken");

  TreeMover mover;
  mover.move(source, target);
  std::cout << "moved " << mover.moved() << ", stayed " << mover.stayed() << '\n';

  const bool right = Ops::exists((source + "taken").c_str(), true) &&
                     Ops::exists((target + "link").c_str(), true) &&
                     !Ops::exists((source + "docs").c_str(), true);
  // Links out of the way first: a tree is removed through the links in it.
  Ops::removeFile((target + "link").c_str());
  Ops::removeTree(source.c_str());
  Ops::removeTree(target.c_str());
  return right && mover.moved() == 5 && mover.stayed() == 1 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 1) return demonstrate();
    if (argc != 3) {
      std::cerr << "usage: move_tree [FROM TO]\n";
      return 2;
    }
    TreeMover mover;
    mover.move(argv[1], argv[2]);
    std::cout << "moved " << mover.moved() << ", stayed " << mover.stayed() << '\n';
    return mover.stayed() == 0 ? 0 : 1;
  } catch (const kes::Exception& error) {
    std::cerr << "move_tree: " << error.text() << '\n';
    return 1;
  }
}
