// The tool from its main() on: any arguments, environment and keys, and any driver. The calls of IOKit are
// those below, the capture goes to memory, and nobody sleeps. What comes out is held against a plain reading
// of the same rules.
#include <IOKit/IOKitLib.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Input.h"
#include "State.h"
#include "Target.h"
#include "client/Records.h"
#include "pcaplib/capture.h"
#include "sys/Owner.h"

/// The tool's main(), as it is called here.
int kestrace(int argc, char** argv);

namespace {

using namespace kes::client;
using kes::sys::Descriptor;

struct Answer {
  kern_return_t result;
  std::string bytes;
  std::size_t claimed;
};

/// What one run of the tool meets.
struct Plan {
  std::vector<std::string> words, environment;
  std::string keys;
  io_service_t service = 0;
  kern_return_t openResult = 0, typeResult = 0, levelsResult = 0;
  std::vector<Answer> answers;
};

kern_return_t takeResult(Input& input) {
  const std::size_t number = input.number();
  return number % 4 != 0 ? KERN_SUCCESS : static_cast<kern_return_t>(0xE0000200 + number);
}

std::vector<std::string> takeTexts(Input& input, std::size_t limit) {
  std::vector<std::string> texts(input.number() % limit);
  for (std::string& text : texts) text = input.text();
  return texts;
}

Answer takeAnswer(Input& input) {
  const kern_return_t result = takeResult(input);
  const std::size_t length = input.longNumber();
  Answer answer{result, input.bytes(length % 5000), 0};
  // Every now and then a driver claims more than it was offered.
  answer.claimed = length < 60000 ? answer.bytes.size() : length;
  return answer;
}

Plan takePlan(Input input) {
  Plan plan{.words = takeTexts(input, 12), .environment = takeTexts(input, 8), .keys = input.text()};
  plan.service = input.number() % 8 != 7 ? 5 : 0;
  for (kern_return_t* result : {&plan.openResult, &plan.typeResult, &plan.levelsResult})
    *result = takeResult(input);
  while (!input.empty()) plan.answers.push_back(takeAnswer(input));
  return plan;
}

/// What the calls below see and leave behind.
struct World {
  const Plan* plan = nullptr;  ///< null while the tool does not run
  std::size_t asked = 0;       ///< answers given
  int services = 0, connections = 0;
  Descriptor capture{::memfd_create("capture", MFD_CLOEXEC)};
};

World g_world;

/// The answer to a call for text or packets; without one it succeeds and gives nothing.
kern_return_t answer(void* reply, std::size_t& count) {
  const std::size_t index = g_world.asked++;
  if (index >= g_world.plan->answers.size()) {
    count = 0;
    return KERN_SUCCESS;
  }
  const Answer& answer = g_world.plan->answers[index];
  if (answer.result != KERN_SUCCESS) return answer.result;
  std::memcpy(reply, answer.bytes.data(), std::min(count, answer.bytes.size()));
  count = answer.claimed;
  return KERN_SUCCESS;
}

}  // namespace

const mach_port_t kIOMasterPortDefault = MACH_PORT_NULL;
mach_port_t mach_task_self_ = 0x103;

extern "C" {

CFMutableDictionaryRef IOServiceMatching(const char* name) {
  return reinterpret_cast<CFMutableDictionaryRef>(const_cast<char*>(name));
}

io_service_t IOServiceGetMatchingService(mach_port_t, CFDictionaryRef) {
  g_world.services += g_world.plan->service != 0 ? 1 : 0;
  return g_world.plan->service;
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t, uint32_t, io_connect_t* connect) {
  require(service == g_world.plan->service);
  if (g_world.plan->openResult != KERN_SUCCESS) return g_world.plan->openResult;
  ++g_world.connections;
  *connect = 77;
  return KERN_SUCCESS;
}

kern_return_t IOServiceClose(io_connect_t connect) {
  require(connect == 77 && g_world.connections-- == 1);
  return KERN_SUCCESS;
}

kern_return_t IOObjectRelease(io_object_t object) {
  require(object == g_world.plan->service && g_world.services-- == 1);
  return KERN_SUCCESS;
}

kern_return_t IOConnectCallScalarMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                        uint32_t inputCount, uint64_t*, uint32_t*) {
  require(connection == 77 && selector == 0 && inputCount == 1 && (*input == 1 || *input == 2));
  return g_world.plan->typeResult;
}

kern_return_t IOConnectCallMethod(mach_port_t connection, uint32_t selector, const uint64_t*, uint32_t,
                                  const void*, std::size_t inputSize, uint64_t*, uint32_t*, void* reply,
                                  std::size_t* count) {
  require(connection == 77);
  if (selector == 3 && inputSize == sizeof(SetDebugLevelsRecord)) return g_world.plan->levelsResult;
  require(selector == 2 ? inputSize == 0 : selector == 3 && inputSize == sizeof(GetTraceRequest));
  return answer(reply, *count);
}

/// The program ends some time: when the driver has no more to say. A trace heeds a signal; one that came
/// during a dump would be the end of the fuzzer.
void __wrap_KesOsSleep(unsigned int) {
  if (g_world.asked < g_world.plan->answers.size()) return;
  if (cmdTrace != 0) {
    ::raise(SIGTERM);
  } else {
    _exitflg = 1;
  }
}

/// The tool asks for its terminal to be put back; it would do so once for each input.
int __wrap_atexit(void (*)()) { return 0; }

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, mode_t mode) {
  if (g_world.plan == nullptr || *path == '\0') return __real_open(path, flags, mode);
  const std::string inMemory = "/proc/self/fd/" + std::to_string(g_world.capture.get());
  return __real_open(inMemory.c_str(), flags, mode);
}

}  // extern "C"

namespace {

/// Pointers to the texts, with a null behind the last one.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// A stream that takes the place of another one, and keeps what is written.
class Collector {
 public:
  explicit Collector(std::FILE*& place) : place_(place), before_(place) {
    place_ = ::open_memstream(&text_, &size_);
  }
  ~Collector() {
    std::fclose(place_);
    std::free(text_);
    place_ = before_;
  }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  std::string text() const {
    std::fflush(place_);
    return {text_, size_};
  }

 private:
  std::FILE*& place_;
  std::FILE* before_;
  char* text_ = nullptr;
  std::size_t size_ = 0;
};

/// Gives back what the tool changes in its process, which is not going to end.
class Undoing {
 public:
  Undoing() : environment_(::environ) {
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
    for (std::size_t i = 0; i < signals.size(); ++i) ::sigaction(signals[i], nullptr, &actions_[i]);
  }
  ~Undoing() {
    ::environ = environment_;
    ::pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
    for (std::size_t i = 0; i < signals.size(); ++i) ::sigaction(signals[i], &actions_[i], nullptr);
    dbgLvl = {};
    cmdTrace = cmdPacketDump = 0;
    _dumpFilename = "";
    _exitflg = 0;
    cap_types[PCAP_ETHERNET].opened = 0;
    cap_types[PCAP_ETHERNET].path[0] = '\0';
    g_world.plan = nullptr;
  }
  Undoing(const Undoing&) = delete;
  Undoing& operator=(const Undoing&) = delete;

 private:
  static constexpr std::array signals{SIGINT, SIGTERM, SIGCONT};

  char** environment_;
  sigset_t mask_;
  std::array<struct sigaction, signals.size()> actions_;
};

/// Standard input becomes a pipe that holds the keys and has no writer any more.
void putKeys(const std::string& keys) {
  std::array<int, 2> ends{};
  require(::pipe2(ends.data(), O_CLOEXEC) == 0);
  const Descriptor reader(ends[0]), writer(ends[1]);
  require(::write(writer.get(), keys.data(), keys.size()) == static_cast<ssize_t>(keys.size()));
  ::dup2(reader.get(), STDIN_FILENO);
  std::clearerr(stdin);
}

/// What a run leaves.
struct Outcome {
  int code;
  std::string out, err, capture;
};

std::string captured() {
  std::string bytes(static_cast<std::size_t>(::lseek(g_world.capture.get(), 0, SEEK_END)), '\0');
  require(::pread(g_world.capture.get(), bytes.data(), bytes.size(), 0) ==
          static_cast<ssize_t>(bytes.size()));
  return bytes;
}

Outcome runTool(Plan& plan) {
  g_world.asked = 0;
  g_world.services = g_world.connections = 0;
  require(::ftruncate(g_world.capture.get(), 0) == 0);
  putKeys(plan.keys);
  std::vector<char*> words = pointersTo(plan.words), environment = pointersTo(plan.environment);
  const Collector out(stdout), err(stderr);
  ::environ = environment.data();
  g_world.plan = &plan;
  const int code = kestrace(static_cast<int>(plan.words.size()), words.data());
  return {code, out.text(), err.text(), captured()};
}

/// Which mode the words ask for.
struct Mode {
  bool isUsage = false, isTrace = false, isDump = false;

  explicit Mode(const std::vector<std::string>& words) : isUsage(words.size() < 2) {
    for (std::size_t i = 1; i < words.size() && !isUsage; ++i) {
      const std::string& word = words[i];
      const bool isLevel = word == "-d" || word == "-p" || word == "-o" || word == "-c";
      isTrace = isTrace || word == "-trace";
      isDump = isDump || word == "-dump";
      isUsage = isLevel ? i + 1 >= words.size() : word != "-trace" && word != "-dump";
      if (word != "-trace") ++i;
    }
  }
  bool asksDriver() const { return !isUsage && (isTrace || isDump); }
};

bool opens(const Plan& plan) {
  return plan.service != 0 && plan.openResult == KERN_SUCCESS && plan.typeResult == KERN_SUCCESS;
}

/// The turns of the loop in which the driver is asked: until 'Q', or until the signal.
std::size_t turnsOf(const Plan& plan) {
  const std::size_t untilSignal = std::max<std::size_t>(plan.answers.size(), 1);
  return std::min(plan.keys.find('Q'), untilSignal);
}

std::string failure(const char* call, kern_return_t result) {
  std::array<char, 80> line;
  std::snprintf(line.data(), line.size(), "%s failed: ret=0x%08x.\n\n", call, static_cast<unsigned>(result));
  return line.data();
}

/// A buffer of the tool's that calls are answered into, one after the other.
class Replies {
 public:
  explicit Replies(std::size_t capacity) : bytes_(capacity + 1, '\0'), capacity_(capacity) {}

  std::string take(const Answer& answer) {
    const std::size_t written = std::min(answer.bytes.size(), capacity_);
    std::copy_n(answer.bytes.begin(), written, bytes_.begin());
    return bytes_.substr(0, std::min(answer.claimed, capacity_));
  }
  void terminate(std::size_t at) { bytes_[at] = '\0'; }

 private:
  std::string bytes_;
  std::size_t capacity_;
};

void requireTraces(const Plan& plan, const Outcome& outcome) {
  static Replies replies(2047);  // as long-lived as the tool's own
  std::string shown, failures;
  for (std::size_t i = 0; i < std::min(turnsOf(plan), plan.answers.size()); ++i) {
    const Answer& answer = plan.answers[i];
    if (answer.result != KERN_SUCCESS) {
      failures += failure("GetTrace", answer.result);
      continue;
    }
    const std::string reply = replies.take(answer);
    if (reply.size() <= traceHeader) continue;
    replies.terminate(reply.size());
    shown += reply.c_str() + traceHeader;
  }
  require(outcome.out.ends_with("quit tracing with 'Q'\n" + shown));
  require(outcome.err.ends_with(failures));
  require(outcome.capture.empty());
}

/// The packets of a capture behind its header.
std::vector<std::string> packetsIn(const std::string& capture) {
  constexpr std::size_t fileHeader = 24, recordHeader = 16;
  std::vector<std::string> packets;
  for (std::size_t at = fileHeader; at < capture.size();) {
    std::uint32_t length = 0;
    require(at + recordHeader <= capture.size());
    std::memcpy(&length, capture.data() + at + 8, sizeof length);
    require(at + recordHeader + length <= capture.size());
    packets.push_back(capture.substr(at + recordHeader, length));
    at += recordHeader + length;
  }
  return packets;
}

void requirePackets(const Plan& plan, const Outcome& outcome) {
  Replies replies(packetCapacity);
  std::vector<std::string> stored;
  std::string messages;
  for (std::size_t i = 0; i < std::min(turnsOf(plan), plan.answers.size()); ++i) {
    const Answer& answer = plan.answers[i];
    if (answer.result != KERN_SUCCESS) {
      messages += failure("GetPacket", answer.result);
      continue;
    }
    const std::string packet = replies.take(answer);
    if (!packet.empty()) messages += "GetPacket ok len =" + std::to_string(packet.size()) + '\n';
    if (packet.size() >= 3) stored.push_back(packet);
  }
  require(outcome.err.ends_with(messages));
  require(outcome.capture.size() >= 24 && packetsIn(outcome.capture) == stored);
}

void requireRules(const Plan& plan, const Outcome& outcome) {
  const Mode mode(plan.words);
  const bool isConnected = mode.asksDriver() && opens(plan);
  require(outcome.code == (mode.isUsage || (mode.asksDriver() && !isConnected) ? 1 : 0));
  require(mode.isUsage == outcome.out.starts_with("usage: "));
  // The process's end closes the connection of a dump.
  const int left = isConnected && !mode.isTrace ? 1 : 0;
  require(g_world.services == left && g_world.connections == left);
  if (!isConnected) return require(g_world.asked == 0 && outcome.capture.empty());
  if (mode.isTrace) return requireTraces(plan, outcome);
  const bool isNamed = cap_types[PCAP_ETHERNET].path[0] != '\0';
  if (isNamed) return requirePackets(plan, outcome);
  require(g_world.asked == 0 && outcome.out.find("failed to open file ") != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Plan plan = takePlan({data, size});
  if (plan.keys.size() > 4096) return 0;  // more than a pipe is sure to take
  const Undoing untilNext;
  const Outcome outcome = runTool(plan);
  requireRules(plan, outcome);
  return 0;
}
