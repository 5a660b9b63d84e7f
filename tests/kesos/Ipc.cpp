#include "kesos/Ipc.h"

#include <sched.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace kes::test {

void enterPrivateIpc() {
  static const bool entered = [] {
    if (::unshare(CLONE_NEWIPC) == 0) return true;
    std::cout << "no IPC namespace of our own (" << std::strerror(errno) << "): using the machine's\n";
    return false;
  }();
  static_cast<void>(entered);
}

std::string shell(const std::string& command) {
  std::fflush(nullptr);
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
  std::string output;
  for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) output.push_back(static_cast<char>(c));
  const int status = ::pclose(pipe);
  if (status != 0) throw std::runtime_error(command + ": status " + std::to_string(status));
  if (output.ends_with('\n')) output.pop_back();
  return output;
}

std::string perl(const std::string& program) {
  return shell("perl -e 'use IPC::SysV qw(GETNCNT GETVAL IPC_RMID SETVAL); " + program + "'");
}

std::vector<std::uint32_t> usageTable() {
  std::istringstream words(
      perl("my $id = shmget(32777, 0, 0); exit if !defined $id;"
           "shmread($id, my $table, 0, 500) or die; print join(\" \", unpack(\"L125\", $table));"));
  std::vector<std::uint32_t> table;
  for (std::uint32_t word = 0; words >> word;) table.push_back(word);
  return table;
}

std::ostream& operator<<(std::ostream& out, const Usage& usage) {
  return out << "processes " << usage.processes << ", handles " << usage.handles << ", references "
             << usage.references << ", slots " << usage.slotsUsed;
}

Usage usage() {
  const auto table = usageTable();
  if (table.size() != 125) throw std::runtime_error("no usage table");
  return {table[1], table[2], table[3], table[4]};
}

bool tableExists() { return !usageTable().empty(); }

std::uint32_t slotCount(int semid) {
  const auto table = usageTable();
  for (std::size_t word = 5; word + 1 < table.size(); word += 2) {
    if (table[word] == static_cast<std::uint32_t>(semid)) return table[word + 1];
  }
  return 0;
}

int semaphoreOf(unsigned int key) {
  return std::stoi(perl("my $id = semget(" + std::to_string(static_cast<int>(key)) +
                        ", 0, 0); print defined $id ? 0 + $id : -1;"));
}

int valueOf(unsigned int key) {
  return std::stoi(perl("my $id = semget(" + std::to_string(static_cast<int>(key)) +
                        ", 0, 0); print 0 + semctl($id, 0, GETVAL, 0);"));
}

void removeSemaphore(unsigned int key) {
  perl("semctl(semget(" + std::to_string(key) + ", 0, 0), 0, IPC_RMID, 0) or die;");
}

void perlOnceSomebodyWaits(unsigned int key, const std::string& program) {
  perl("my $id = semget(" + std::to_string(key) +
       ", 0, 0);"
       "select(undef, undef, undef, 0.01) until semctl($id, 0, GETNCNT, 0) > 0;" +
       program);
}

std::vector<std::string> listedKeys() {
  std::istringstream lines(shell("ipcs -m -s | grep ^0x || true"));
  std::vector<std::string> keys;
  for (std::string line; std::getline(lines, line);) keys.push_back(line.substr(0, line.find(' ')));
  return keys;
}

unsigned int freshKey() {
  static unsigned int count = 0;
  return 0x4b000000U + (static_cast<unsigned int>(::getpid()) << 8U) + ++count;
}

KesOsMutex* mutexOf(unsigned int key) {
  KesOsMutex* mutex = nullptr;
  if (KesOsMutexCreate(&mutex, key) != 1 || mutex == nullptr) throw std::runtime_error("no mutex");
  return mutex;
}

KesOsEvent* eventOf(unsigned int key) {
  KesOsEvent* event = nullptr;
  if (KesOsEventCreate(&event, key) != 1 || event == nullptr) throw std::runtime_error("no event");
  return event;
}

pid_t startProcess(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("no process");
  if (pid > 0) return pid;
  int code = 99;
  try {
    code = body();
  } catch (const std::exception& error) {
    std::cerr << "left the process: " << error.what() << '\n';
  }
  std::fflush(nullptr);
  ::_exit(code);
}

int waitForProcess(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) throw std::runtime_error("no such process");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<int> runProcesses(int count, const std::function<int(int)>& body) {
  std::vector<pid_t> pids;
  for (int index = 0; index < count; ++index) {
    pids.push_back(startProcess([&body, index] { return body(index); }));
  }
  std::vector<int> codes;
  for (const pid_t pid : pids) codes.push_back(waitForProcess(pid));
  return codes;
}

DescriptorLimit::DescriptorLimit(int limit) {
  ::getrlimit(RLIMIT_NOFILE, &before_);
  const rlimit lowered{static_cast<rlim_t>(limit), before_.rlim_max};
  if (::setrlimit(RLIMIT_NOFILE, &lowered) != 0) throw std::runtime_error("cannot lower the limit");
}
DescriptorLimit::~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }

void* mapShared(std::size_t size) {
  void* address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (address == MAP_FAILED) throw std::runtime_error("no shared memory");
  return address;
}

void unmapShared(void* address, std::size_t size) { ::munmap(address, size); }

}  // namespace kes::test
