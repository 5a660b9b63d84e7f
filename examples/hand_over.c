/* A hand-over between two processes that survives the crash of the one that holds. Both work on a list that
 * is as a whole only while nobody works on it: an entry is begun, filled and counted. The first is killed
 * half way. The second is told so by its wait, finishes or drops what was begun, and goes on. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "kesos/kesos.h"

enum { ENTRIES = 6, CRASH_AT = 3, LIMIT_MS = 10000 };

/* What both share: an entry counts once it is whole. */
typedef struct List {
  int begun;
  int count;
  int entries[ENTRIES];
} List;

typedef struct Desk {
  KesOsMutex* mutex;
  KesOsMmf memory;
  List* list;
} Desk;

static void fail(const char* what) {
  perror(what);
  exit(1);
}

/* Keys belong to one run of this program: see kesos.c. */
static void sitDown(Desk* desk, unsigned int key) {
  if (!KesOsMutexCreateEx(&desk->mutex, key, NULL)) fail("mutex");
  if (!KesOsMmfCreate(&desk->memory, sizeof(List), NULL, (key_t)key)) fail("memory");
  desk->list = desk->memory.address;
}

static void standUp(Desk* desk) {
  KesOsMmfClose(&desk->memory);
  KesOsMutexClose(desk->mutex);
}

/* An entry that was begun, and not counted, is nobody's: it is made again. */
static void repair(List* list) {
  printf("the holder died over entry %d, which is made again\n", list->begun);
  list->begun = list->count;
}

static void lock(Desk* desk) {
  unsigned int state;
  if (!KesOsMutexWaitEx(desk->mutex, LIMIT_MS, &state)) fail("lock");
  if (state == KESOS_WAIT_HOLDER_DIED) repair(desk->list);
}

static void add(List* list, int mayCrash) {
  list->begun = list->count + 1;
  if (mayCrash && list->begun == CRASH_AT) raise(SIGKILL);
  list->entries[list->count] = list->begun * list->begun;
  list->count = list->begun;
}

static void work(Desk* desk, int mayCrash) {
  int isDone = 0;
  while (!isDone) {
    lock(desk);
    isDone = desk->list->count == ENTRIES;
    if (!isDone) add(desk->list, mayCrash);
    KesOsMutexRelease(desk->mutex);
  }
}

static int workUntilTheCrash(const char* key) {
  Desk desk;
  sitDown(&desk, (unsigned int)strtoul(key, NULL, 10));
  work(&desk, 1);
  standUp(&desk);
  return 0;
}

static void startOther(const char* program, unsigned int key, KesOsProcess** other) {
  char text[16];
  const char* arguments[3];
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  sprintf_kes(text, sizeof text, "%u", key);
  arguments[0] = program;
  arguments[1] = text;
  arguments[2] = NULL;
  options.arguments = arguments;
  if (!KesOsCreateProcessAsynEx(NULL, &options, other)) fail(program);
}

int main(int argc, char* argv[]) {
  const unsigned int key = 0x4d000000U + (unsigned int)getpid();
  Desk desk;
  KesOsProcess* other;
  int entry, signalNumber;
  if (argc > 1) return workUntilTheCrash(argv[1]);
  sitDown(&desk, key);
  startOther(argv[0], key, &other);
  if (!KesOsProcessWaitEx(other, LIMIT_MS, NULL, &signalNumber)) fail("the other");
  printf("the other was ended by signal %d\n", signalNumber);
  KesOsProcessClose(other);
  work(&desk, 0);
  for (entry = 0; entry < desk.list->count; ++entry) printf("%d ", desk.list->entries[entry]);
  printf("\n");
  standUp(&desk);
  /* The other died with its handle, so it is still counted as a user: nobody else will remove the mutex. */
  return KesOsRemoveKeyed(key) ? 0 : 1;
}
