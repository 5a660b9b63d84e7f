#pragma once

#include <string>

namespace kes::test {

/// In a test program that compiles FaultyIds.cpp in: which call of setuid, seteuid, setgid, setegid,
/// setgroups or getgroups fails, counted from when this was set. Code 0: it does nothing and reports success.
struct IdFault {
  std::string call;
  int nth = 0;
  int code = 0;
};

IdFault& faultyIds();

}  // namespace kes::test
