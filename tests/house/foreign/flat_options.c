#include "kesos/kesos.h"

KesOsProcess* startByOptions(const char* text);

KesOsProcess* startByOptions(const char* text) {
  const char* arguments[] = {"echo", NULL, NULL};
  KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
  KesOsProcess* process = NULL;
  arguments[1] = text;
  options.arguments = arguments;
  KesOsCreateProcessAsynEx(NULL, &options, &process);
  return process;
}
