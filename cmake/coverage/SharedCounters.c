/* Linked into every program of a coverage build, or what runs in forked children would not count: they end by
 * _exit() or a signal, have no descriptors left, another root directory or no right to write. So they share
 * the counters of the process that forked them, page by page. That process alone saves them, once, when it
 * ends. What tests put between a program and the system has no part in all this: these are not the program's
 * calls, and counters that are saved in part are lost to everybody. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <gcov.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The linker script says where they are. */
extern char kes_counters_begin[] __attribute__((visibility("hidden")));
extern char kes_counters_end[] __attribute__((visibility("hidden")));

static pid_t owner;

/* Of the C library, looked up before anybody could refuse that; null if somebody did. */
static void (*end_at_once)(int);
static void (*end_abnormally)(void);

/* Of tests/support/ProgramCalls.cpp, where that is preloaded. */
static void (*let_pass)(int);

static void leave_alone(int what_comes) {
  if (let_pass != NULL) let_pass(what_comes);
}

static void move_counters(size_t size) {
  char* counted = malloc(size);
  if (counted == NULL) abort();
  memcpy(counted, kes_counters_begin, size);
  void* shared =
      mmap(kes_counters_begin, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (shared == MAP_FAILED) _exit(99);
  memcpy(shared, counted, size);
  free(counted);
}

/* Before every other constructor, so that there is one thread. */
__attribute__((constructor(101))) static void share(void) {
  const size_t size = (size_t)(kes_counters_end - kes_counters_begin);
  owner = getpid();
  *(void**)&let_pass = dlsym(RTLD_DEFAULT, "kes_let_pass");
  leave_alone(1);
  *(void**)&end_at_once = dlsym(RTLD_NEXT, "_exit");
  *(void**)&end_abnormally = dlsym(RTLD_NEXT, "abort");
  if (size != 0) move_counters(size);
  leave_alone(0);
}

/* Whether whole files can be written. The process is about to end: its limits concern nobody any more. But a
 * hard one may be there to stay, and a part of the counters makes those of everybody unreadable. */
static int lift_limits(void) {
  const struct rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  const rlim_t enough = (rlim_t)64 << 20;
  struct rlimit own;
  signal(SIGXFSZ, SIG_IGN);
  if (setrlimit(RLIMIT_FSIZE, &none) == 0) return 1;
  if (getrlimit(RLIMIT_FSIZE, &own) != 0 || own.rlim_max < enough) return 0;
  own.rlim_cur = own.rlim_max;
  return setrlimit(RLIMIT_FSIZE, &own) == 0;
}

/* Whether this process is to save, and can. No signal ends it on the way: half a file is worse than none. */
static int begins_to_save(void) {
  sigset_t all;
  if (getpid() != owner) return 0;
  leave_alone(1);
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, NULL);
  return lift_limits();
}

/* What is saved is cleared: saving again adds what came since. */
static void save(void) {
  if (!begins_to_save()) return;
  __gcov_dump();
  __gcov_reset();
}

void __real___gcov_exit(void);
void __wrap___gcov_exit(void) {
  if (begins_to_save()) __real___gcov_exit();
}

/* The ways out that no exit handler sees. */
void _exit(int status) {
  save();
  if (end_at_once != NULL) end_at_once(status);
  for (;;) syscall(SYS_exit_group, status);
}

void _Exit(int status) { _exit(status); }

void abort(void) {
  save();
  if (end_abnormally != NULL) end_abnormally();
  __builtin_trap();
}
