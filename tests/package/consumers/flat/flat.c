/* A program in C that uses the flat layer: a lock, an event, a mapping and a string. */
#include <stdio.h>
#include <string.h>

#include "kes/version.h"
#include "kesos/kesos.h"

#if KES_VERSION_NUMBER < 1000
#error "the version is older than this program"
#endif

static int fail(const char* what) {
  printf("%s failed\n", what);
  return 1;
}

static int useMapping(const char* file) {
  KesOsMmf mapping;
  if (KesOsMmfCreate(&mapping, 4096, file, 0) != 1) return 0;
  memcpy(mapping.address, "kept", 5);
  return KesOsMmfFlush(&mapping, mapping.address, 5) == 1 && KesOsMmfClose(&mapping) == 1;
}

int main(int argc, char** argv) {
  KesOsMutex* mutex;
  KesOsEvent* event;
  unsigned int state = 0;
  char text[8];
  if (KesOsMutexCreate(&mutex, 0) != 1 || KesOsMutexWait(mutex, 0xFFFFFFFFU, &state) != 1 ||
      KesOsMutexRelease(mutex) != 1 || KesOsMutexClose(mutex) != 1)
    return fail("a mutex");
  if (KesOsEventCreate(&event, 0) != 1 || KesOsEventSet(event) != 1 ||
      KesOsEventWait(event, 0xFFFFFFFFU, &state) != 1 || KesOsEventClose(event) != 1)
    return fail("an event");
  if (argc < 2 || !useMapping(argv[1])) return fail("a mapping");
  if (strcmp(strcpy_kes(text, sizeof text, "too long a text"), "too lon") != 0) return fail("a string");
  printf("kes %s\n", KES_VERSION);
  return 0;
}
