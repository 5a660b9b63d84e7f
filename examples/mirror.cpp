// Keeps a mirror of a directory: copies what is there, with rights, times, links and holes, removes from the
// mirror what is there no longer, and writes a record of it that is whole at every moment. Two mirrors of one
// place take turns.
//
//   mirror FROM TO     brings TO up to date; Ctrl-C leaves no file half copied
//   mirror             shows it on a tree of its own
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "kespal/error/FsError.h"
#include "kespal/error/Json.h"
#include "kespal/fs/File.h"
#include "kespal/fs/Lock.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "kespal/fs/SaveFile.h"
#include "kespal/fs/Tree.h"
#include "kespal/fs/TreeCopier.h"

namespace {

using kes::fs::File;
using kes::fs::Ops;
using kes::fs::Path;

class Mirror {
 public:
  Mirror(const Path& from, const Path& to) : from_(from), to_(to) {}

  /// False when something could not be copied.
  bool update() {
    const Path lockPath = to_ + ".lock";
    Ops::tryMakedirs(to_.c_str());
    File file;
    file.open(lockPath.c_str(), File::READ_WRITE, File::CREATE | File::NO_FOLLOW);
    kes::fs::Lock lock;
    lock.set(file.fd());
    if (!lock.writeLockTimed(std::chrono::seconds(5))) {
      std::cerr << "another mirror of " << to_ << " is at work\n";
      return false;
    }
    const kes::fs::ScopedLock atTheEnd(lock);
    removeWhatIsGone();
    copy();
    record();
    return errors_ == 0;
  }

 private:
  Path content() const { return to_ + "content"; }

  void removeWhatIsGone() {
    if (!Ops::exists(content().c_str(), /*follow=*/false)) return;
    std::vector<std::string> gone;
    kes::fs::TreeWalk walk(content().c_str());
    while (walk.nextEntry()) {
      if (Ops::exists((from_ + walk.relativePath()).c_str(), /*follow=*/false)) continue;
      gone.push_back(walk.path());
      walk.skip();
    }
    for (const std::string& path : gone) removed_ += kes::fs::removeAll(path.c_str());
  }

  void copy() {
    kes::fs::TreeCopier copier(kes::fs::OVERWRITE);
    copier.onProgress([this](const kes::fs::TreeCopier::Progress& progress) {
      copied_ = progress.entries;
      return true;
    });
    copier.onError([this](const kes::Exception& error) {
      std::cerr << kes::json(error) << '\n';
      ++errors_;
      return true;
    });
    copier.copy(from_.c_str(), content().c_str());
  }

  void record() const {
    const std::string text = "copied " + std::to_string(copied_) + ", removed " + std::to_string(removed_) +
                             ", errors " + std::to_string(errors_) + '\n';
    kes::fs::SaveFile file((to_ + "record").c_str());
    file.write(text.data(), text.size());
    file.commit();
    std::cout << text;
  }

  Path from_, to_;
  std::uint64_t copied_ = 0;
  std::uintmax_t removed_ = 0;
  unsigned errors_ = 0;
};

void write(const Path& path) { File().open(path.c_str(), File::WRITE, File::CREATE); }

bool demonstrate() {
  std::string place = "mirror-";
  Ops::tempdir(place);
  const Path top(place), from = top + "from", to = top + "to";
  Ops::makedirs((from + "docs/old").c_str());
  for (const char* name : {"readme", "docs/1", "docs/old/2"}) write(from + name);
  Ops::symlink((from + "latest").c_str(), "docs/1");
  bool right = Mirror(from, to).update();
  kes::fs::removeAll((from + "docs/old").c_str());
  right = Mirror(from, to).update() && right;
  kes::fs::removeAll(place.c_str());
  return right;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 1 && argc != 3) {
      std::cerr << "usage: mirror [FROM TO]\n";
      return 2;
    }
    const bool isRight = argc == 1 ? demonstrate() : Mirror(argv[1], argv[2]).update();
    return isRight ? 0 : 1;
  } catch (const kes::Exception& error) {
    std::cerr << kes::json(error) << '\n';
    return 1;
  }
}
