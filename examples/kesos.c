/* The flat layer from C: a worker thread, a mutex and an event that other processes could open by their
 * keys, and a directory with a file in it. */
#include <stdio.h>
#include <stdlib.h>

#include "kesos/kesos.h"

enum { MUTEX_KEY = 0x4b455301, EVENT_KEY = 0x4b455302, ROUNDS = 1000 };
static const unsigned int infinite = 0xFFFFFFFF;

typedef struct Job {
  KesOsMutex* mutex;
  KesOsEvent* done;
  unsigned int state; /* of the worker thread */
  int count;
} Job;

static void countOn(Job* job) {
  int round;
  for (round = 0; round < ROUNDS; ++round) {
    KesOsMutexWait(job->mutex, infinite, NULL);
    ++job->count;
    KesOsMutexRelease(job->mutex);
  }
}

static void* work(void* arg) {
  Job* job = arg;
  KesOsThreadSetName("worker");
  countOn(job);
  KesOsEventSet(job->done);
  return NULL;
}

static void fail(const char* what) {
  perror(what);
  exit(1);
}

static void countTogether(void) {
  Job job = {NULL, NULL, 0, 0};
  if (!KesOsMutexCreate(&job.mutex, MUTEX_KEY)) fail("mutex");
  if (!KesOsEventCreate(&job.done, EVENT_KEY)) fail("event");
  if (!KesOsThreadStart(NULL, &job.state, work, &job)) fail("thread");
  countOn(&job);
  KesOsEventWait(job.done, infinite, NULL);
  printf("both counted to %d\n", job.count);
  KesOsEventClose(job.done);
  KesOsMutexClose(job.mutex);
}

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

int main(void) {
  KesOsInit();
  countTogether();
  listFiles();
  printf("done after %u seconds\n", KesOsGetUpTime());
  return 0;
}
