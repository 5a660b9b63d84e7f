// The numbers under which support documents for this system know the signals. Nothing but these checks is
// in this file: should a system header ever disagree, the build says so.
#include <csignal>

static_assert(SIGHUP == 1 && SIGINT == 2 && SIGQUIT == 3 && SIGILL == 4 && SIGTRAP == 5 && SIGABRT == 6);
static_assert(SIGFPE == 8 && SIGKILL == 9 && SIGBUS == 10 && SIGSEGV == 11 && SIGSYS == 12 && SIGPIPE == 13);
static_assert(SIGALRM == 14 && SIGTERM == 15 && SIGURG == 16 && SIGSTOP == 17 && SIGTSTP == 18 &&
              SIGCONT == 19);
static_assert(SIGCHLD == 20 && SIGTTIN == 21 && SIGTTOU == 22 && SIGXCPU == 24 && SIGXFSZ == 25);
static_assert(SIGVTALRM == 26 && SIGPROF == 27 && SIGUSR1 == 30 && SIGUSR2 == 31);
