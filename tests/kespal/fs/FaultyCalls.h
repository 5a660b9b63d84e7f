#pragma once

#include <string>
#include <vector>

namespace kes::test {

/// Lets a system call of the file layer fail while the object lives: `times` calls of it, or all, after
/// the first `skip` ones were let through. The linker puts this between the library and the system.
class Failing {
 public:
  Failing(const std::string& call, int errnum, int skip = 0, int times = -1);
  ~Failing();
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
};

/// Lets write() take no more than so many bytes at once.
class ShortWrites {
 public:
  explicit ShortWrites(std::size_t most);
  ~ShortWrites();
  ShortWrites(const ShortWrites&) = delete;
  ShortWrites& operator=(const ShortWrites&) = delete;
};

/// Lets readdir() keep the types of entries to itself, as some file systems do.
class UnknownTypes {
 public:
  UnknownTypes();
  ~UnknownTypes();
  UnknownTypes(const UnknownTypes&) = delete;
  UnknownTypes& operator=(const UnknownTypes&) = delete;
};

/// Runs a function just before the next call of a name is made, once.
class Before {
 public:
  Before(const std::string& call, void (*action)(const std::string&), const std::string& argument);
  ~Before();
  Before(const Before&) = delete;
  Before& operator=(const Before&) = delete;
};

/// Notes the names of the system calls made while it lives, in order.
class Trace {
 public:
  Trace();
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  std::vector<std::string> calls() const;
};

}  // namespace kes::test
