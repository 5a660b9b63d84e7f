#include "Listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include "sys/Retry.h"
#include "wire/Unix.h"

namespace kes::driver {
namespace {

using sys::Descriptor;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

Descriptor openDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("cannot create " + path);
  Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) fail("cannot open " + path);
  return directory;
}

sockaddr_un mustFit(const std::string& path) {
  const auto address = iokit::addressOf(path);
  if (!address) throw std::runtime_error("the path of a socket may not be that long: " + path);
  return *address;
}

std::string fittingPath(const std::string& directory, const std::string& serviceClass) {
  std::string path = iokit::socketPath(directory, serviceClass);
  mustFit(path);
  return path;
}

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

bool isSocket(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

bool somebodyListensAt(const std::string& path) {
  const sockaddr_un address = mustFit(path);
  const Descriptor probe = iokit::makeSocket();
  if (!probe) fail("cannot make a socket");
  const int result = sys::retry([&] { return ::connect(probe.get(), generic(address), sizeof address); });
  return result == 0 || errno != ECONNREFUSED;
}

/// Keeps other drivers that start or end now away from the names in the directory.
class DirectoryLock {
 public:
  explicit DirectoryLock(const Descriptor& directory) : fd_(directory.get()) {
    sys::retry([this] { return ::flock(fd_, LOCK_EX); });
  }
  ~DirectoryLock() { ::flock(fd_, LOCK_UN); }
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int fd_;
};

}  // namespace

Listener::Listener(const std::string& directory, const std::string& serviceClass, mode_t mode)
    : path_(fittingPath(directory, serviceClass)), directory_(openDirectory(directory)) {
  const std::string temporary = directory + "/." + std::to_string(::getpid()) + ".sock";
  const DirectoryLock lock(directory_);
  listenAt(temporary, mode);
  try {
    publish(temporary);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  ::unlink(temporary.c_str());
}

Listener::~Listener() {
  const DirectoryLock lock(directory_);
  struct stat now {};
  const bool isOurs = ::lstat(path_.c_str(), &now) == 0 && now.st_ino == inode_ && now.st_dev == device_;
  if (isOurs) ::unlink(path_.c_str());
}

void Listener::listenAt(const std::string& path, mode_t mode) {
  const sockaddr_un address = mustFit(path);
  socket_ = iokit::makeSocket();
  if (!socket_) fail("cannot make a socket");
  ::unlink(path.c_str());
  if (::bind(socket_.get(), generic(address), sizeof address) != 0) fail("cannot bind " + path);
  if (::chmod(path.c_str(), mode) != 0) fail("cannot set the mode of " + path);
  const bool listens = ::listen(socket_.get(), SOMAXCONN) == 0 &&
                       ::fcntl(socket_.get(), F_SETFL, O_NONBLOCK) == 0;  // accept() must not wait
  if (!listens) fail("cannot listen at " + path);
}

void Listener::publish(const std::string& temporary) {
  struct stat info {};
  if (::lstat(temporary.c_str(), &info) != 0) fail("cannot find " + temporary);
  device_ = info.st_dev;
  inode_ = info.st_ino;
  if (::link(temporary.c_str(), path_.c_str()) == 0) return;
  if (errno != EEXIST) fail("cannot create " + path_);
  if (!isSocket(path_)) throw std::runtime_error("not a socket, and in the way: " + path_);
  if (somebodyListensAt(path_)) throw std::runtime_error("a driver is there already: " + path_);
  // Left behind by one that died.
  if (::rename(temporary.c_str(), path_.c_str()) != 0) fail("cannot replace " + path_);
}

Descriptor Listener::accept() const {
  return Descriptor(
      sys::retry([this] { return ::accept4(fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }));
}

}  // namespace kes::driver
