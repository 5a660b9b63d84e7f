/* Loads a plugin, calls it, unloads it while a thread of its libraries runs, forks, and lets that thread do
 * its work: three times over. */
#define _GNU_SOURCE /* pipe2 */
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

static pid_t callPlugin(const char* path, int input) {
  pid_t (*begin)(int);
  pid_t child = -1;
  void* plugin = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (plugin == NULL) {
    printf("%s\n", dlerror());
    return -1;
  }
  *(void**)&begin = dlsym(plugin, "begin");
  if (begin != NULL) child = begin(input);
  return dlclose(plugin) == 0 ? child : -1;
}

/* A fork runs the fork handlers of whatever is, or was, loaded; an exit the handlers of that. */
static int canFork(int output) {
  int status;
  const pid_t child = fork();
  if (child == 0) {
    close(output);
    _exit(42);
  }
  return child > 0 &&
         (waitpid(child, &status, 0) != child || (WIFEXITED(status) && WEXITSTATUS(status) == 42));
}

/* The plugin's child ends, and the thread that was left behind reaps it. */
static void awaitReaping(pid_t child) {
  while (kill(child, 0) == 0) sched_yield();
}

static int useOnce(const char* path) {
  int ends[2];
  pid_t child;
  if (pipe2(ends, O_CLOEXEC) != 0) return 0;
  child = callPlugin(path, ends[0]);
  close(ends[0]);
  if (child <= 0 || !canFork(ends[1])) return 0;
  close(ends[1]);
  awaitReaping(child);
  return 1;
}

int main(int argc, char** argv) {
  int round;
  if (argc < 2) return 2;
  for (round = 1; round <= 3; ++round) {
    if (!useOnce(argv[1])) return printf("round %d failed\n", round), 1;
  }
  return 0;
}
