#pragma once

// Included first in tests that were written on Linux and run under the loader: the calls that macOS does not
// have, which the loader hands on to Linux.
#include <pthread.h>
#include <sys/types.h>
#include <sys/wait.h>

extern "C" {
int clearenv();
pid_t gettid();
int pipe2(int ends[2], int flags);
int pthread_getattr_np(pthread_t thread, pthread_attr_t* attributes);
int setresgid(gid_t real, gid_t effective, gid_t saved);
int setresuid(uid_t real, uid_t effective, uid_t saved);
int unshare(int what);
}
constexpr int CLONE_NEWIPC = 0x08000000;

// The macros that take a status apart want to have its address.
#undef _W_INT
#define _W_INT(status) (status)
