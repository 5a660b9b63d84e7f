// The records that the loader of the tests fills in for macOS programs, against the platform's headers.
#include <fcntl.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): <csignal> need not have siginfo_t
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/sysctl.h>

#include <cstddef>

#include "loader/calls/Records.h"

namespace mac = loader::mac;
using FileLock = struct flock;  // of that name there is a function as well

// NOLINTBEGIN(bugprone-macro-parentheses): names of members
#define SAME_SIZE(ours, theirs) static_assert(sizeof(mac::ours) == sizeof(theirs))
#define SAME_PLACE(ours, member, theirs, theirMember)                           \
  static_assert(offsetof(mac::ours, member) == offsetof(theirs, theirMember) && \
                sizeof(mac::ours::member) == sizeof(decltype(theirs::theirMember)))
// NOLINTEND(bugprone-macro-parentheses)

SAME_SIZE(Flock, FileLock);
SAME_PLACE(Flock, length, FileLock, l_len);
SAME_PLACE(Flock, process, FileLock, l_pid);
SAME_PLACE(Flock, type, FileLock, l_type);
SAME_PLACE(Flock, whence, FileLock, l_whence);

SAME_SIZE(SignalInfo, siginfo_t);
SAME_PLACE(SignalInfo, code, siginfo_t, si_code);
SAME_PLACE(SignalInfo, process, siginfo_t, si_pid);
SAME_PLACE(SignalInfo, user, siginfo_t, si_uid);
SAME_PLACE(SignalInfo, status, siginfo_t, si_status);
SAME_PLACE(SignalInfo, address, siginfo_t, si_addr);
SAME_PLACE(SignalInfo, value, siginfo_t, si_value);

SAME_SIZE(IpcPermissions, ipc_perm);
SAME_PLACE(IpcPermissions, mode, ipc_perm, mode);
SAME_PLACE(IpcPermissions, key, ipc_perm, _key);
SAME_SIZE(SemaphoreState, semid_ds);
SAME_PLACE(SemaphoreState, count, semid_ds, sem_nsems);
SAME_PLACE(SemaphoreState, operated, semid_ds, sem_otime);
SAME_PLACE(SemaphoreState, changed, semid_ds, sem_ctime);
SAME_SIZE(SegmentState, shmid_ds);
SAME_PLACE(SegmentState, size, shmid_ds, shm_segsz);
SAME_PLACE(SegmentState, lastProcess, shmid_ds, shm_lpid);
SAME_PLACE(SegmentState, attached, shmid_ds, shm_nattch);
SAME_PLACE(SegmentState, attachedLast, shmid_ds, shm_atime);
SAME_PLACE(SegmentState, changed, shmid_ds, shm_ctime);

SAME_SIZE(Seconds, timeval);
SAME_PLACE(Seconds, microseconds, timeval, tv_usec);
SAME_SIZE(Process, kinfo_proc);
static_assert(offsetof(mac::Process, start) == offsetof(kinfo_proc, kp_proc.p_starttime));
static_assert(offsetof(mac::Process, state) == offsetof(kinfo_proc, kp_proc.p_stat));
static_assert(offsetof(mac::Process, id) == offsetof(kinfo_proc, kp_proc.p_pid));
static_assert(offsetof(mac::Process, command) == offsetof(kinfo_proc, kp_proc.p_comm));
static_assert(offsetof(mac::Process, realUser) == offsetof(kinfo_proc, kp_eproc.e_pcred.p_ruid));
static_assert(offsetof(mac::Process, savedUser) == offsetof(kinfo_proc, kp_eproc.e_pcred.p_svuid));
static_assert(offsetof(mac::Process, savedGroup) == offsetof(kinfo_proc, kp_eproc.e_pcred.p_svgid));
static_assert(sizeof(mac::Process::command) == MAXCOMLEN + 1);
