#include "kesos/libraries.h"

#include <dlfcn.h>

namespace {

bool isGiven(const char* text) { return text != nullptr && *text != '\0'; }

void* withReason(void* result, const char** error) {
  if (result == nullptr && error != nullptr) *error = ::dlerror();
  return result;
}

}  // namespace

void* KesOsDlLoad(const char* file) { return isGiven(file) ? ::dlopen(file, RTLD_LAZY) : nullptr; }

void* KesOsDlLoadEx(const char* file, const char** error) { return withReason(KesOsDlLoad(file), error); }

void* KesOsDlGetAddr(void* handle, const char* symbol) {
  return handle != nullptr && isGiven(symbol) ? ::dlsym(handle, symbol) : nullptr;
}

void* KesOsDlGetAddrEx(void* handle, const char* symbol, const char** error) {
  return withReason(KesOsDlGetAddr(handle, symbol), error);
}

int KesOsDlFree(void* handle) { return handle == nullptr || ::dlclose(handle) == 0 ? 1 : 0; }
