#pragma once

namespace kes::test {

/// In a test program that is linked with --wrap for the calls in RuntimeCalls.cpp: what the runtime object
/// asks of the system, written down or refused. For forked children.
class RuntimeCalls {
 public:
  enum Call { Sigmask, ThreadCreate, ThreadKill, ClockGettime, Kill, Open, Last };

  /// From now on the main thread's calls go to standard output as they are made, a blank before each.
  static void show();
  /// Refuses a call from now on, after so many that succeed.
  static void refuse(Call call, int code, int after = 0);
  static void refuseNothing();
};

}  // namespace kes::test
