#include "KeptInRegisters.h"

namespace kes::test {

namespace {

thread_local long calls = 0;

[[gnu::noinline]] void raise(int depth) {
  if (depth == 0) throw depth;
  raise(depth - 1);
  asm volatile("");  // no tail call: every level is a frame
}

}  // namespace

double sumAcrossThreadLocal(double a, double b, double c, double d, double e, double f, double g, double h,
                            long i, long j, long k, long l, long m, long n) {
  const long call = ++calls;
  return a + b + c + d + e + f + g + h + static_cast<double>(i + j + k + l + m + n + call);
}

double sumAcrossException(double a, double b, double c, double d, double e, double f, double g, double h,
                          long i, long j, long k, long l, long m, long n) {
  try {
    raise(3);
  } catch (int) {
    return a + b + c + d + e + f + g + h + static_cast<double>(i + j + k + l + m + n);
  }
  return 0;
}

}  // namespace kes::test
