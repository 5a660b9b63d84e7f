// A lock file that keeps a second instance of a program out. The system gives the lock back however the
// first instance ends, so that no stale file has to be cleaned up.
//
//   single_instance FILE     runs if no other instance holds FILE: status 0, else 1
//   single_instance          shows it: starts a second and, after its own end, a third instance
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "kespal/fs/Lock.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/StreamFile.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Info.h"

namespace {

using kes::fs::File;
using kes::fs::Lock;
using kes::fs::ScopedLock;
using kes::fs::StreamFile;

/// Holds the lock file as long as it lives, with the process's id in it for whoever asks.
class Instance {
 public:
  explicit Instance(const std::string& path) {
    file_.open(path.c_str(), File::READ_WRITE, File::CREATE | File::NO_FOLLOW);
    Lock lock;
    lock.set(file_.fd());
    if (!lock.tryWriteLock()) return;
    held_ = std::make_unique<ScopedLock>(lock);
    const std::string id = std::to_string(::getpid());
    file_.truncate(0);
    file_.write(id.data(), id.size());
  }

  bool isFirst() const { return held_ != nullptr; }
  std::string owner() {
    std::string id(20, 0);
    file_.seek(0);
    id.resize(file_.read(id.data(), id.size()));
    return id;
  }

 private:
  StreamFile file_;
  std::unique_ptr<ScopedLock> held_;
};

int run(const std::string& path) {
  Instance instance(path);
  if (instance.isFirst()) {
    std::cout << "running" << std::endl;
    return 0;
  }
  std::cout << "already running as process " << instance.owner() << std::endl;
  return 1;
}

int startAnother(const std::string& path) {
  kes::proc::Child other({kes::proc::Info::exe(), path});
  other.create();
  const int status = other.wait().status;
  return WEXITSTATUS(status);
}

int demonstrate() {
  std::string path = "single-instance-";
  StreamFile().open(File::TempType(), path);
  int second = 0;
  {
    const Instance first(path);
    second = startAnother(path);
  }
  const int third = startAnother(path);
  kes::proc::Child::exit();
  kes::fs::Ops::removeFile(path.c_str());
  return second == 1 && third == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return argc == 2 ? run(argv[1]) : demonstrate();
  } catch (const kes::Exception& error) {
    std::cerr << "single_instance: " << error.text() << '\n';
    return 2;
  }
}
