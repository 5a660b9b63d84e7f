/* Prints the stack size, in bytes, that a thread really gets, in a process that had no thread before: the
 * C library hands the larger stacks of ended threads on. */
#define _GNU_SOURCE
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>

#include "kesos/kesos.h"

static sem_t measured;
static size_t stackSize;

static void* measure(void* arg) {
  pthread_attr_t attributes;
  (void)arg;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    pthread_attr_getstacksize(&attributes, &stackSize);
    pthread_attr_destroy(&attributes);
  }
  sem_post(&measured);
  return NULL;
}

int main(int argc, char** argv) {
  pthread_t thread;
  const unsigned int wanted = argc > 1 ? (unsigned int)strtoul(argv[1], NULL, 10) : 0;
  sem_init(&measured, 0, 0);
  if (KesOsThreadBegin(&thread, measure, wanted, NULL) == 0) return 1;
  sem_wait(&measured);
  printf("%zu\n", stackSize);
  return 0;
}
