#pragma once

namespace kes::test {

/// The sum of all arguments, and of the number of calls that this thread made, which is asked for while the
/// arguments are in registers.
double sumAcrossThreadLocal(double a, double b, double c, double d, double e, double f, double g, double h,
                            long i, long j, long k, long l, long m, long n);
/// The sum of all arguments, after an exception was caught while they were in registers.
double sumAcrossException(double a, double b, double c, double d, double e, double f, double g, double h,
                          long i, long j, long k, long l, long m, long n);

}  // namespace kes::test
