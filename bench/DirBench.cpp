#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"

// Dir beside the plain calls and std::filesystem, over ten thousand entries.

namespace {

/// A directory of empty files, made at its first use and removed at the end of the program.
class Entries {
 public:
  Entries() {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp");
    for (int number = 0; number < 10000; ++number) {
      if (::mknod((path_ + "/entry-" + std::to_string(number)).c_str(), S_IFREG | 0600, 0) != 0) {
        throw std::runtime_error("mknod");
      }
    }
  }
  ~Entries() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Entries(const Entries&) = delete;
  Entries& operator=(const Entries&) = delete;

  static const char* path() {
    static const Entries entries;
    return entries.path_.c_str();
  }

 private:
  std::string path_ = (std::filesystem::temp_directory_path() / "kes-bench-XXXXXX").string();
};

bool isDots(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

void NamesByReaddir(benchmark::State& state) {
  const char* const path = Entries::path();
  for (auto _ : state) {
    DIR* stream = ::opendir(path);
    std::size_t bytes = 0;
    while (const dirent* entry = ::readdir(stream)) {
      if (!isDots(entry->d_name)) bytes += std::strlen(entry->d_name);
    }
    ::closedir(stream);
    benchmark::DoNotOptimize(bytes);
  }
}

void NamesByDir(benchmark::State& state) {
  const char* const path = Entries::path();
  for (auto _ : state) {
    kes::fs::Dir dir(path);
    std::size_t bytes = 0;
    while (dir.nextEntry()) bytes += std::strlen(dir.entryName());
    benchmark::DoNotOptimize(bytes);
  }
}

void NamesByStd(benchmark::State& state) {
  const char* const path = Entries::path();
  for (auto _ : state) {
    std::size_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      bytes += entry.path().filename().native().size();
    }
    benchmark::DoNotOptimize(bytes);
  }
}

void StatusByFstatat(benchmark::State& state) {
  const char* const path = Entries::path();
  for (auto _ : state) {
    DIR* stream = ::opendir(path);
    off_t size = 0;
    while (const dirent* entry = ::readdir(stream)) {
      struct stat status;
      if (isDots(entry->d_name) || ::fstatat(::dirfd(stream), entry->d_name, &status, 0) != 0) continue;
      size += status.st_size;
    }
    ::closedir(stream);
    benchmark::DoNotOptimize(size);
  }
}

void StatusByDir(benchmark::State& state) {
  const char* const path = Entries::path();
  for (auto _ : state) {
    kes::fs::Dir dir(path);
    off_t size = 0;
    for (kes::fs::Info info; dir.nextEntry();) {
      dir.entryInfo(info, /*follow=*/true);
      size += info.size();
    }
    benchmark::DoNotOptimize(size);
  }
}

void StatusByStd(benchmark::State& state) {
  const char* const path = Entries::path();
  for (auto _ : state) {
    std::uintmax_t size = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path)) size += entry.file_size();
    benchmark::DoNotOptimize(size);
  }
}

BENCHMARK(NamesByReaddir);
BENCHMARK(NamesByDir);
BENCHMARK(NamesByStd);
BENCHMARK(StatusByFstatat);
BENCHMARK(StatusByDir);
BENCHMARK(StatusByStd);

}  // namespace
