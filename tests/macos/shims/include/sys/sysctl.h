#pragma once

#include <sys/types.h>

#include <cstddef>

inline constexpr int CTL_KERN = 1;
inline constexpr int KERN_PROC = 14;
inline constexpr int KERN_PROC_ALL = 0;
inline constexpr int KERN_PROC_PID = 1;
inline constexpr int MAXCOMLEN = 16;

/// The fields that are read here, of the many that the platform's records have.
struct extern_proc {
  pid_t p_pid;
  char p_comm[MAXCOMLEN + 1];
};
struct _pcred {
  uid_t p_svuid;
  gid_t p_svgid;
};
struct eproc {
  _pcred e_pcred;
};
struct kinfo_proc {
  extern_proc kp_proc;
  eproc kp_eproc;
};

extern "C" int sysctl(int* name, unsigned int length, void* old, std::size_t* oldSize, void* next,
                      std::size_t nextSize);
