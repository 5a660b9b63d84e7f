// The flat layer, each function beside the raw calls it stands on.
//
// Goals, as ratios of medians of one run:
//   keyedMutex      at most 1.1 x rawSemop (two system calls a round), and not behind pocoNamedMutex
//   localMutex      at most 1.05 x rawRecursiveMutex
//   threadBegin     at most 1.05 x rawThread
//   localEvent      at most 1.05 x rawCondition, on one CPU
//   copyFile        at most 1.05 x rawCopy
//   search          at most 1.1 x rawSearch
//   deleteTree      at most 1.0 x removeTree, which is rm -rf without the start of a program
//   deleteDirectories  the same of directories without files, which are all looked at before one goes
//   strings         at most 1.1 x the memcpy and strnlen they stand on
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <fts.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kesos/kesos.h"

#ifdef KES_BENCH_POCO
#include <Poco/NamedMutex.h>
#endif

namespace {

constexpr unsigned int infinite = 0xFFFFFFFF;

void require(bool condition) {
  if (!condition) std::abort();
}

/// The C library takes shortcuts with locks while a process has one thread only.
void becomeThreaded() {
  static const bool begun = [] {
    std::thread([] { KesOsSleep(infinite); }).detach();
    return true;
  }();
  require(begun);
}

// --- mutual exclusion

void rawSemop(benchmark::State& state) {
  const int id = ::semget(IPC_PRIVATE, 1, 0600);
  sembuf up{0, 1, 0}, down{0, -1, 0};
  ::semop(id, &up, 1);
  for (auto _ : state) {
    ::semop(id, &down, 1);
    ::semop(id, &up, 1);
  }
  ::semctl(id, 0, IPC_RMID);
}
BENCHMARK(rawSemop);

void keyedMutex(benchmark::State& state) {
  KesOsMutex* mutex = nullptr;
  require(KesOsMutexCreate(&mutex, 0x4b455311) == 1);
  for (auto _ : state) {
    KesOsMutexWait(mutex, infinite, nullptr);
    KesOsMutexRelease(mutex);
  }
  KesOsMutexClose(mutex);
}
BENCHMARK(keyedMutex);

#ifdef KES_BENCH_POCO
void pocoNamedMutex(benchmark::State& state) {
  Poco::NamedMutex mutex("kes-bench");
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
}
BENCHMARK(pocoNamedMutex);
#endif

void rawRecursiveMutex(benchmark::State& state) {
  becomeThreaded();
  pthread_mutexattr_t attributes;
  pthread_mutex_t mutex;
  ::pthread_mutexattr_init(&attributes);
  ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  ::pthread_mutex_init(&mutex, &attributes);
  for (auto _ : state) {
    ::pthread_mutex_lock(&mutex);
    ::pthread_mutex_unlock(&mutex);
  }
  ::pthread_mutex_destroy(&mutex);
}
BENCHMARK(rawRecursiveMutex);

void localMutex(benchmark::State& state) {
  becomeThreaded();
  KesOsMutex* mutex = nullptr;
  require(KesOsMutexCreate(&mutex, 0) == 1);
  for (auto _ : state) {
    KesOsMutexWait(mutex, infinite, nullptr);
    KesOsMutexRelease(mutex);
  }
  KesOsMutexClose(mutex);
}
BENCHMARK(localMutex);

// --- threads and events

void onOneCpu() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  ::sched_setaffinity(0, sizeof one, &one);
}

/// What a thread that was started does: says that it is there.
void* sayEnd(void* arg) {
  auto* event = static_cast<KesOsEvent*>(arg);
  KesOsEventSet(event);
  return nullptr;
}

template <typename Begin>
void runThreads(benchmark::State& state, Begin begin) {
  KesOsEvent* ended = nullptr;
  require(KesOsEventCreate(&ended, 0) == 1);
  for (auto _ : state) {
    pthread_t thread;
    require(begin(&thread, ended));
    KesOsEventWait(ended, infinite, nullptr);
  }
  KesOsEventClose(ended);
}

void rawThread(benchmark::State& state) {
  runThreads(state, [](pthread_t* thread, void* arg) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, 262144);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const bool created = ::pthread_create(thread, &attributes, sayEnd, arg) == 0;
    ::pthread_attr_destroy(&attributes);
    return created;
  });
}
BENCHMARK(rawThread)->UseRealTime();

void threadBegin(benchmark::State& state) {
  runThreads(state,
             [](pthread_t* thread, void* arg) { return KesOsThreadBegin(thread, sayEnd, 0, arg) == 1; });
}
BENCHMARK(threadBegin)->UseRealTime();

/// An auto-reset event as it has to be made by hand.
class RawEvent {
 public:
  void set() {
    ::pthread_mutex_lock(&mutex_);
    if (!flag_) {
      flag_ = true;
      ::pthread_cond_broadcast(&condition_);
    }
    ::pthread_mutex_unlock(&mutex_);
  }
  void wait() {
    ::pthread_mutex_lock(&mutex_);
    while (!flag_) ::pthread_cond_wait(&condition_, &mutex_);
    flag_ = false;
    ::pthread_mutex_unlock(&mutex_);
  }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
  bool flag_ = false;
};

class FlatEvent {
 public:
  FlatEvent() { require(KesOsEventCreate(&event_, 0) == 1); }
  ~FlatEvent() { KesOsEventClose(event_); }
  FlatEvent(const FlatEvent&) = delete;
  FlatEvent& operator=(const FlatEvent&) = delete;
  void set() { KesOsEventSet(event_); }
  void wait() { KesOsEventWait(event_, infinite, nullptr); }

 private:
  KesOsEvent* event_ = nullptr;
};

/// Two threads on one CPU hand over to each other.
template <typename Event>
void handOver(benchmark::State& state) {
  Event there, back;
  bool stop = false;
  std::thread other([&] {
    onOneCpu();
    for (;;) {
      there.wait();
      if (stop) return;
      back.set();
    }
  });
  cpu_set_t before;
  ::sched_getaffinity(0, sizeof before, &before);
  onOneCpu();
  for (auto _ : state) {
    there.set();
    back.wait();
  }
  stop = true;
  there.set();
  other.join();
  ::sched_setaffinity(0, sizeof before, &before);
}
void rawCondition(benchmark::State& state) { handOver<RawEvent>(state); }
BENCHMARK(rawCondition)->UseRealTime();
void localEvent(benchmark::State& state) { handOver<FlatEvent>(state); }
BENCHMARK(localEvent)->UseRealTime();

// --- files

/// A directory for the life of a benchmark.
class Directory {
 public:
  Directory() { require(KesOsCreateTempdir(path_, sizeof path_) == 1); }
  ~Directory() { KesOsDeleteDirTree(path_); }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  std::string operator/(const std::string& name) const { return std::string(path_) + '/' + name; }

 private:
  char path_[KESOS_PATH_SIZE];
};

void touch(const std::string& path) { ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600)); }

std::string fileOf(const Directory& dir, std::size_t size) {
  std::string path = dir / "from";
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0600);
  const std::vector<char> bytes(size, 'x');
  require(::write(fd, bytes.data(), size) == static_cast<ssize_t>(size));
  ::close(fd);
  return path;
}

constexpr std::size_t copied = 16 << 20;

void rawCopy(benchmark::State& state) {
  const Directory dir;
  const std::string from = fileOf(dir, copied), to = dir / "to";
  for (auto _ : state) {
    const int in = ::open(from.c_str(), O_RDONLY),
              out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    struct stat source {
    }, target{};
    ::fstat(in, &source);
    ::fstat(out, &target);
    const auto size = static_cast<std::size_t>(target.st_blksize);
    const auto buffer = std::make_unique<char[]>(size);
    for (ssize_t count = 0; (count = ::read(in, buffer.get(), size)) > 0;) {
      require(::write(out, buffer.get(), static_cast<std::size_t>(count)) == count);
    }
    require(::fchown(out, source.st_uid, source.st_gid) == 0);
    ::close(out);
    const utimbuf times{source.st_atime, source.st_mtime};
    ::utime(to.c_str(), &times);
    ::close(in);
  }
}
BENCHMARK(rawCopy)->Unit(benchmark::kMillisecond);

void copyFile(benchmark::State& state) {
  const Directory dir;
  const std::string from = fileOf(dir, copied), to = dir / "to";
  for (auto _ : state) require(KesOsCopyFile(from.c_str(), to.c_str(), 0) == 1);
}
BENCHMARK(copyFile)->Unit(benchmark::kMillisecond);

constexpr int entries = 10000;

void rawSearch(benchmark::State& state) {
  const Directory dir;
  for (int index = 0; index < entries; ++index) touch(dir / ("entry" + std::to_string(index) + ".txt"));
  for (auto _ : state) {
    DIR* stream = ::opendir((dir / "").c_str());
    int found = 0;
    while (const dirent* entry = ::readdir(stream)) {
      struct stat facts {};
      if (entry->d_name[0] != '.') found += ::fstatat(::dirfd(stream), entry->d_name, &facts, 0) == 0 ? 1 : 0;
    }
    ::closedir(stream);
    require(found == entries);
  }
}
BENCHMARK(rawSearch)->Unit(benchmark::kMillisecond);

void search(benchmark::State& state) {
  const Directory dir;
  for (int index = 0; index < entries; ++index) touch(dir / ("entry" + std::to_string(index) + ".txt"));
  const std::string pattern = dir / "entry*.txt";
  for (auto _ : state) {
    KesOsFind find;
    char name[KESOS_PATH_SIZE];
    unsigned int type = 0;
    time_t time = 0;
    off_t size = 0;
    int found = 0;
    int more = KesOsFindFirst(&find, pattern.c_str(), name, &type, &time, &size);
    for (; more == 1; more = KesOsFindNext(&find, name, &type, &time, &size)) ++found;
    KesOsFindClose(&find);
    require(found == entries);
  }
}
BENCHMARK(search)->Unit(benchmark::kMillisecond);

std::string makeDirectories(const Directory& dir) {
  std::string top = dir / "tree";
  ::mkdir(top.c_str(), 0700);
  for (int outer = 0; outer < 30; ++outer) {
    const std::string below = top + "/directory" + std::to_string(outer);
    ::mkdir(below.c_str(), 0700);
    for (int inner = 0; inner < 30; ++inner) ::mkdir((below + '/' + std::to_string(inner)).c_str(), 0700);
  }
  return top;
}

std::string makeTree(const Directory& dir) {
  std::string top = dir / "tree";
  ::mkdir(top.c_str(), 0700);
  for (int outer = 0; outer < 20; ++outer) {
    const std::string below = top + "/directory" + std::to_string(outer);
    ::mkdir(below.c_str(), 0700);
    for (int inner = 0; inner < 100; ++inner) touch(below + "/file" + std::to_string(inner));
  }
  return top;
}

/// As the usual tool walks and deletes.
void removeWithFts(const std::string& top) {
  char* const roots[] = {const_cast<char*>(top.c_str()), nullptr};
  FTS* walk = ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_NOSTAT, nullptr);
  while (const FTSENT* entry = ::fts_read(walk)) {
    if (entry->fts_info == FTS_DP) {
      ::rmdir(entry->fts_accpath);
    } else if (entry->fts_info != FTS_D) {
      ::unlink(entry->fts_accpath);
    }
  }
  ::fts_close(walk);
}

template <typename Remove>
void removeTrees(benchmark::State& state, std::string (*make)(const Directory&), Remove remove) {
  const Directory dir;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string top = make(dir);
    state.ResumeTiming();
    remove(top);
    require(KesOsFileExists(top.c_str()) == 0);
  }
}

void deleteWithKesOs(const std::string& top) { require(KesOsDeleteDirTree(top.c_str()) == 1); }

void removeTree(benchmark::State& state) { removeTrees(state, makeTree, removeWithFts); }
BENCHMARK(removeTree)->Unit(benchmark::kMillisecond);
void deleteTree(benchmark::State& state) { removeTrees(state, makeTree, deleteWithKesOs); }
BENCHMARK(deleteTree)->Unit(benchmark::kMillisecond);

void removeDirectories(benchmark::State& state) { removeTrees(state, makeDirectories, removeWithFts); }
BENCHMARK(removeDirectories)->Unit(benchmark::kMillisecond);
void deleteDirectories(benchmark::State& state) { removeTrees(state, makeDirectories, deleteWithKesOs); }
BENCHMARK(deleteDirectories)->Unit(benchmark::kMillisecond);

// --- strings

const std::string text(500, 'x');
char target[1024];

void rawStrings(benchmark::State& state) {
  const char* source = text.c_str();
  benchmark::DoNotOptimize(source);
  for (auto _ : state) {
    const std::size_t length = ::strnlen(source, sizeof target);
    std::memcpy(target, source, length);
    target[length] = '\0';
    benchmark::ClobberMemory();
  }
}
BENCHMARK(rawStrings);

void strings(benchmark::State& state) {
  const char* source = text.c_str();
  benchmark::DoNotOptimize(source);
  for (auto _ : state) {
    strcpy_kes(target, sizeof target, source);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(strings);

}  // namespace
