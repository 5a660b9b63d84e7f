#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>
#include <string>

#include "Calls.h"

namespace loader {

namespace {

using Removal = void (*)(const void* header, std::intptr_t slide);

/// The libraries that the program loaded itself, and how often. What it unloads stays in memory, but nobody
/// finds it any more.
struct Libraries {
  std::recursive_mutex mutex;
  std::map<Image*, int> counts;
  std::map<std::string, Image*> names;
  std::vector<Removal> removals;
};
Libraries& libraries() {
  static auto* const all = new Libraries;
  return *all;
}

thread_local std::string failure;
thread_local bool hasFailed = false;

template <typename Result>
Result fail(const std::string& text, Result result) {
  failure = text;
  hasFailed = true;
  return result;
}

Image* opened(const std::string& path) {
  Libraries& all = libraries();
  const auto known = all.names.find(path);
  if (known != all.names.end()) {
    ++all.counts[known->second];
    return known->second;
  }
  Image* const image = load(path);
  all.names[path] = image;
  all.counts[image] = 1;
  image->runInitFunctions(program.argc, program.argv);
  return image;
}

void* open(const char* path, int) {
  const std::lock_guard guard(libraries().mutex);
  if (path == nullptr) return program.images.back();
  char* const resolved = ::realpath(path, nullptr);
  if (resolved == nullptr) {
    return fail<void*>("dlopen(" + std::string(path) + ", 0x0001): tried: '" + path + "' (no such file)",
                       nullptr);
  }
  const std::string file = resolved;
  std::free(resolved);
  try {
    return opened(file);
  } catch (const std::exception& error) {
    return fail<void*>("dlopen(" + std::string(path) + ", 0x0001): " + error.what(), nullptr);
  }
}

/// The special handles of the platform stand for every image.
void* find(void* handle, const char* name) {
  const std::lock_guard guard(libraries().mutex);
  const auto special = reinterpret_cast<std::intptr_t>(handle);
  for (const Image* image : program.images) {
    if (special >= 0 && image != handle) continue;
    if (void* const address = image->symbol(name)) return address;
  }
  return fail<void*>("dlsym(" + std::to_string(special) + ", " + name + "): symbol not found", nullptr);
}

void unload(Image* image) {
  Libraries& all = libraries();
  for (const Removal told : all.removals) told(image->base(), 0);
  std::erase(program.images, image);
  all.counts.erase(image);
  std::erase_if(all.names, [image](const auto& each) { return each.second == image; });
}

int close(void* handle) {
  const std::lock_guard guard(libraries().mutex);
  const auto known = libraries().counts.find(static_cast<Image*>(handle));
  if (known == libraries().counts.end()) return fail("dlclose(): invalid handle", -1);
  if (--known->second == 0) unload(known->first);
  return 0;
}

/// Tells of a failure once.
const char* error() {
  static thread_local std::string told;
  if (!hasFailed) return nullptr;
  hasFailed = false;
  told = failure;
  return told.c_str();
}

void tellOfRemovals(Removal function) {
  const std::lock_guard guard(libraries().mutex);
  libraries().removals.push_back(function);
}

const Call calls[] = {{"dlopen", open},
                      {"dlsym", find},
                      {"dlclose", close},
                      {"dlerror", error},
                      {"_dyld_register_func_for_remove_image", tellOfRemovals}};

}  // namespace

std::span<const Call> libraryCalls() { return calls; }

}  // namespace loader
