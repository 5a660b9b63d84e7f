// The declarations that the macOS halves use, as their types. Compiled for macOS against the platform's
// headers, and on Linux against the shims: so the shims cannot say anything else.
#include <crt_externs.h>
#include <fcntl.h>
#include <mach-o/dyld.h>
#include <mach/clock.h>
#include <mach/mach.h>
#include <pthread.h>
#include <sys/event.h>
#include <sys/stat.h>
#include <sys/sysctl.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

using std::is_same_v;

static_assert(is_same_v<kern_return_t, int> && is_same_v<host_t, unsigned int>);
static_assert(is_same_v<decltype(mach_host_self()), mach_port_t>);
static_assert(is_same_v<mach_port_t, unsigned int>);
static_assert(KERN_SUCCESS == 0 && KERN_INVALID_ARGUMENT == 4 && KERN_FAILURE == 5);

static_assert(is_same_v<clock_id_t, int> && is_same_v<clock_serv_t, unsigned int>);
static_assert(SYSTEM_CLOCK == 0 && CALENDAR_CLOCK == 1);
static_assert(is_same_v<decltype(mach_timespec_t::tv_sec), unsigned int>);
static_assert(is_same_v<decltype(mach_timespec_t::tv_nsec), int> && sizeof(mach_timespec_t) == 8);
static_assert(is_same_v<decltype(host_get_clock_service), kern_return_t(host_t, clock_id_t, clock_serv_t*)>);
static_assert(is_same_v<decltype(clock_get_time), kern_return_t(clock_serv_t, mach_timespec_t*)>);

static_assert(is_same_v<decltype(_NSGetEnviron), char***()>);
static_assert(is_same_v<decltype(_NSGetExecutablePath), int(char*, std::uint32_t*)>);
static_assert(is_same_v<decltype(_dyld_register_func_for_remove_image),
                        void(void (*)(const mach_header*, std::intptr_t))>);

static_assert(is_same_v<decltype(strerror_r), int(int, char*, std::size_t)>);

static_assert(CTL_KERN == 1 && KERN_PROC == 14 && KERN_PROC_ALL == 0 && KERN_PROC_PID == 1 &&
              MAXCOMLEN == 16);
static_assert(is_same_v<decltype(extern_proc::p_pid), int>);
static_assert(is_same_v<decltype(extern_proc::p_comm), char[MAXCOMLEN + 1]>);
static_assert(is_same_v<decltype(kinfo_proc::kp_proc), extern_proc>);
static_assert(is_same_v<decltype(kinfo_proc{}.kp_eproc.e_pcred.p_svuid), uid_t>);
static_assert(is_same_v<decltype(kinfo_proc{}.kp_eproc.e_pcred.p_svgid), gid_t>);
static_assert(is_same_v<decltype(sysctl), int(int*, unsigned int, void*, std::size_t*, void*, std::size_t)>);

static_assert(is_same_v<decltype(pthread_threadid_np(nullptr, std::declval<std::uint64_t*>())), int>);
static_assert(is_same_v<decltype(pthread_cond_timedwait_relative_np(std::declval<pthread_cond_t*>(),
                                                                    std::declval<pthread_mutex_t*>(),
                                                                    std::declval<const timespec*>())),
                        int>);
static_assert(is_same_v<decltype(pthread_setname_np(std::declval<const char*>())), int>);

static_assert(is_same_v<decltype(kqueue), int()>);
static_assert(
    is_same_v<decltype(::kevent), int(int, const struct kevent*, int, struct kevent*, int, const timespec*)>);
static_assert(is_same_v<decltype(std::declval<struct kevent>().ident), std::uintptr_t>);
static_assert(EVFILT_PROC == -5 && EVFILT_USER == -10 && EV_ADD == 0x1 && EV_ONESHOT == 0x10);
static_assert(NOTE_EXIT == 0x80000000 && NOTE_TRIGGER == 0x01000000);

static_assert(F_FULLFSYNC == 51);
static_assert(is_same_v<decltype(std::declval<struct stat>().st_atimespec), timespec>);
static_assert(is_same_v<decltype(std::declval<struct stat>().st_mtimespec), timespec>);
