#pragma once

// Included first in tests that were written on Linux and run under the loader: the calls that macOS does not
// have, which the loader hands on to Linux.
#include <pthread.h>
#include <sys/types.h>

extern "C" {
int clearenv();
pid_t gettid();
int pipe2(int ends[2], int flags);
int pthread_getattr_np(pthread_t thread, pthread_attr_t* attributes);
}
