/* The flat layer from C: two threads that count together, two processes that do, and a directory with a
 * file in it. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "kesos/kesos.h"

enum { ROUNDS = 1000 };
static const unsigned int infinite = 0xFFFFFFFF;

static void fail(const char* what) {
  perror(what);
  exit(1);
}

static void countOn(KesOsMutex* mutex, int* count) {
  int round;
  for (round = 0; round < ROUNDS; ++round) {
    KesOsMutexWait(mutex, infinite, NULL);
    ++*count;
    KesOsMutexRelease(mutex);
  }
}

/* --- Threads share objects of their process: the key is 0. */

typedef struct Job {
  KesOsMutex* mutex;
  KesOsEvent* done;
  unsigned int state; /* of the worker thread: 1 while it runs */
  int count;
} Job;

static void* work(void* arg) {
  Job* job = arg;
  KesOsThreadSetName("worker");
  countOn(job->mutex, &job->count);
  KesOsEventSet(job->done);
  __atomic_store_n(&job->state, 0, __ATOMIC_RELEASE); /* last of all: the job may be gone then */
  return NULL;
}

static void countInThreads(void) {
  Job job = {NULL, NULL, 0, 0};
  if (!KesOsMutexCreate(&job.mutex, 0)) fail("mutex");
  if (!KesOsEventCreate(&job.done, 0)) fail("event");
  if (!KesOsThreadStart(NULL, &job.state, work, &job)) fail("thread");
  countOn(job.mutex, &job.count);
  KesOsEventWait(job.done, infinite, NULL);
  printf("two threads counted to %d\n", job.count);
  KesOsThreadStop(NULL, &job.state, 0, NULL, NULL); /* waits until it has done with the job */
  KesOsEventClose(job.done);
  KesOsMutexClose(job.mutex);
}

/* --- Processes find each other's objects by a key, which all programs of the machine share. These belong to
 * one run of this program, so their keys are made from its process id; what belongs to a file or directory
 * that all users know gets its keys from ftok(). */

typedef struct Meeting {
  KesOsMutex* mutex;
  KesOsEvent* done;
  KesOsMmf count;
} Meeting;

static unsigned int keyOfThisRun(void) { return 0x4c000000U + 2U * (unsigned int)getpid(); }

static void meet(Meeting* meeting, unsigned int key) {
  if (!KesOsMutexCreate(&meeting->mutex, key)) fail("mutex");
  if (!KesOsEventCreate(&meeting->done, key + 1)) fail("event"); /* keys of mutexes and events are the same */
  if (!KesOsMmfCreate(&meeting->count, sizeof(int), NULL, (key_t)key)) fail("memory");
}

static void part(Meeting* meeting) { /* the last to leave removes the objects */
  KesOsMmfClose(&meeting->count);
  KesOsEventClose(meeting->done);
  KesOsMutexClose(meeting->mutex);
}

static int helpToCount(const char* key) {
  Meeting meeting;
  meet(&meeting, (unsigned int)strtoul(key, NULL, 10));
  countOn(meeting.mutex, meeting.count.address);
  KesOsEventSet(meeting.done);
  part(&meeting);
  return 0;
}

static void countInProcesses(const char* program) {
  char command[KESOS_PATH_SIZE];
  Meeting meeting;
  KesOsProcess* helper;
  unsigned int exitCode = 127; /* as for one that cannot be started */
  meet(&meeting, keyOfThisRun());
  /* The program's name ends at the first blank. A path with blanks needs quotes and the shell, which
   * KesOsCreateProcessSw uses. */
  sprintf_kes(command, sizeof command, "%s %u", program, keyOfThisRun());
  if (!KesOsCreateProcessAsyn(command, 0, &helper)) perror("helper");
  countOn(meeting.mutex, meeting.count.address);
  /* Its exit code first: for a helper that could not be started the event would not be set, ever. */
  if (KesOsProcessWait(helper, &exitCode) && exitCode == 0) KesOsEventWait(meeting.done, infinite, NULL);
  printf("two processes counted to %d\n", *(int*)meeting.count.address);
  part(&meeting);
  if (exitCode != 0) {
    fprintf(stderr, "helper: exit code %u\n", exitCode);
    exit(1);
  }
}

/* --- Files. */

static void writeNote(const char* path) {
  FILE* file = fopen(path, "w");
  if (file == NULL || fputs("a note\n", file) == EOF || fclose(file) != 0) fail("note");
}

static void listFiles(void) {
  char dir[KESOS_PATH_SIZE], path[KESOS_PATH_SIZE], copy[KESOS_PATH_SIZE], name[KESOS_PATH_SIZE];
  KesOsFind find;
  unsigned int type;
  if (!KesOsCreateTempdir(dir, sizeof dir)) fail("directory");
  sprintf_kes(path, sizeof path, "%s/note", dir);
  writeNote(path);
  sprintf_kes(copy, sizeof copy, "%s/copy.txt", dir);
  if (!KesOsCopyFile(path, copy, 1)) fail("copy");
  sprintf_kes(path, sizeof path, "%s/*.txt", dir);
  if (!KesOsFindFirst(&find, path, name, &type, NULL, NULL)) fail("search");
  do {
    printf("%s %s\n", type == KESOS_TYPE_DIRECTORY ? "directory" : "file", name);
  } while (KesOsFindNext(&find, name, &type, NULL, NULL));
  KesOsFindClose(&find);
  if (!KesOsDeleteDirTree(dir)) fail("delete");
}

int main(int argc, char* argv[]) {
  if (argc > 1) return helpToCount(argv[1]);
  KesOsInit();
  countInThreads();
  countInProcesses(argv[0]);
  listFiles();
  printf("done after %u seconds\n", KesOsGetUpTime());
  return 0;
}
