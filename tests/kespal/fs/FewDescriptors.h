#pragma once

#include <fcntl.h>
#include <sys/resource.h>

namespace kes::test {

/// Lets this process open no more than so many descriptors besides those that it has, while the object lives.
class FewDescriptors {
 public:
  explicit FewDescriptors(int spare) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit few = before_;
    few.rlim_cur = 0;
    for (int fd = 0; spare > 0; ++fd) {
      if (::fcntl(fd, F_GETFD) == -1) --spare;
      few.rlim_cur = static_cast<rlim_t>(fd) + 1;
    }
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace kes::test
