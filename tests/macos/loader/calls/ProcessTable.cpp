#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Calls.h"
#include "calls/Records.h"

namespace loader {

namespace {

/// The line of a status file with this name, without the name.
std::string lineOf(const std::string& file, const std::string& name) {
  std::ifstream status(file);
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ':')) return line.substr(name.size() + 1);
  }
  return {};
}

void giveIds(const std::string& text, std::uint32_t& real, std::uint32_t& saved) {
  std::uint32_t effective = 0;
  std::istringstream(text) >> real >> effective >> saved;
}

/// The state, and the start in ticks since this system's own, of which the moment does not matter.
void giveTimes(const std::string& folder, mac::Process& process) {
  constexpr int fieldsBetween = 18;
  std::string text;
  std::getline(std::ifstream(folder + "/stat"), text);
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  std::string state, skipped;
  fields >> state;
  for (int field = 0; field < fieldsBetween; ++field) fields >> skipped;
  std::int64_t ticks = 0;
  fields >> ticks;
  const std::int64_t second = ::sysconf(_SC_CLK_TCK);
  constexpr std::int8_t macRuns = 2, macSleeps = 3, macStops = 4, macIsZombie = 5;
  process.state = state == "Z" || state == "X" ? macIsZombie
                  : state == "R"               ? macRuns
                  : state == "T"               ? macStops
                                               : macSleeps;
  process.start = {ticks / second, static_cast<std::int32_t>(ticks % second * 1'000'000 / second)};
}

/// The entry of a process; none when there is no such process.
std::vector<mac::Process> entryOf(pid_t id) {
  const std::string folder = "/proc/" + std::to_string(id);
  std::string command;
  if (!std::getline(std::ifstream(folder + "/comm"), command)) return {};
  mac::Process process{};
  process.id = id;
  command.copy(process.command, sizeof process.command - 1);
  giveTimes(folder, process);
  giveIds(lineOf(folder + "/status", "Uid"), process.realUser, process.savedUser);
  giveIds(lineOf(folder + "/status", "Gid"), process.realGroup, process.savedGroup);
  return {process};
}

std::vector<mac::Process> allEntries() {
  std::vector<mac::Process> all;
  for (const auto& folder : std::filesystem::directory_iterator("/proc")) {
    const std::string name = folder.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    for (const mac::Process& process : entryOf(std::atoi(name.c_str()))) all.push_back(process);
  }
  return all;
}

/// Hands a list out as the kernel does: without a buffer it estimates, and into a short one it writes as many
/// as fit, and fails.
int give(const std::vector<mac::Process>& list, void* buffer, std::size_t* size) {
  constexpr std::size_t record = sizeof(mac::Process), roomToSpare = 5;
  if (buffer == nullptr) {
    *size = (list.size() + roomToSpare) * record;
    return 0;
  }
  const std::size_t fitting = std::min(list.size(), *size / record);
  std::memcpy(buffer, list.data(), fitting * record);
  *size = fitting * record;
  if (fitting == list.size()) return 0;
  errno = ENOMEM;
  return -1;
}

int ask(const int* name, unsigned length, void* buffer, std::size_t* size, const void*, std::size_t) {
  constexpr int macKernel = 1, macProcesses = 14, macAll = 0, macOne = 1;
  const bool ofProcesses = length >= 3 && name[0] == macKernel && name[1] == macProcesses;
  if (ofProcesses && length == 3 && name[2] == macAll) return give(allEntries(), buffer, size);
  if (ofProcesses && length == 4 && name[2] == macOne) return give(entryOf(name[3]), buffer, size);
  errno = ENOENT;
  return -1;
}

const Call calls[] = {{"sysctl", ask}};

}  // namespace

std::span<const Call> processTableCalls() { return calls; }

}  // namespace loader
