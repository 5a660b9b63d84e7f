#pragma once

#include <sys/types.h>

#include <string>

#include "sys/Owner.h"

namespace kes::driver {

/// The listening socket of a service. Its name appears when a connection to it can succeed, never before, and
/// is removed with the object. Throws std::runtime_error.
class Listener {
 public:
  /// `mode` is the socket file's: who may write it may connect.
  Listener(const std::string& directory, const std::string& serviceClass, mode_t mode);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int fd() const { return socket_.get(); }
  const std::string& path() const { return path_; }
  /// The next waiting connection, non-blocking and close-on-exec; none (errno says why) when there is none.
  sys::Descriptor accept() const;

 private:
  void listenAt(const std::string& path, mode_t mode);
  void publish(const std::string& temporary);

  std::string path_;
  sys::Descriptor directory_;
  sys::Descriptor socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace kes::driver
