// The user client and the driver stand-in in one process, a socket between them: what arrives must be what a
// driver answers that is asked directly. The input is a script and then a row of calls, and of datagrams of a
// client that may say anything.
#include <IOKit/IOKitLib.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "Input.h"
#include "Server.h"
#include "Target.h"
#include "wire/Unix.h"

using namespace kes;

namespace {

/// Where the stand-in listens: a directory for the whole run.
class Registry {
 public:
  Registry() {
    require(::mkdtemp(directory_.data()) != nullptr);
    ::setenv("KES_IOREGISTRY", directory_.data(), 1);
    listener_.emplace(directory_.data(), driver::driverClass, 0600);
  }
  ~Registry() {
    listener_.reset();
    ::rmdir(directory_.data());
  }
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  const driver::Listener& listener() const { return *listener_; }

 private:
  std::array<char, 32> directory_{"/tmp/kes-fuzz-XXXXXX"};
  std::optional<driver::Listener> listener_;
};

const Registry& registry() {
  static const Registry registry;
  return registry;
}

/// Packets of all lengths, the same for everybody.
class Packets : public driver::PacketSource {
 public:
  std::optional<iokit::Bytes> next() override {
    packet_.assign(length_ % 4200, static_cast<std::uint8_t>(length_));
    length_ += 97;
    return packet_;
  }

 private:
  std::size_t length_ = 0;
  std::vector<std::uint8_t> packet_;
};

/// A driver as it is when it starts to serve.
struct Fresh {
  Fresh() { driver.fetchFrom(packets); }

  Packets packets;
  driver::Driver driver{{.traceCapacity = 4000, .queueCapacity = 4}};
};

/// A journal, of which each line is as it should be, whatever the clients say.
class Noting {
 public:
  Noting() { require(lines_.stream != nullptr && json_.stream != nullptr); }
  ~Noting() {
    requireLines(lines_.text(), "connection ", "");
    requireLines(json_.text(), "{\"time\":", "}");
  }
  Noting(const Noting&) = delete;
  Noting& operator=(const Noting&) = delete;

  driver::Journal journal() const { return {lines_.stream, json_.stream}; }

 private:
  struct Memory {
    char* bytes = nullptr;
    std::size_t size = 0;
    std::FILE* stream = ::open_memstream(&bytes, &size);

    std::string text() {
      std::fclose(stream);
      const std::string text(bytes, size);
      std::free(bytes);
      return text;
    }
  };

  static void requireLines(const std::string& text, std::string_view start, std::string_view end) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      require(line.starts_with(start) && line.ends_with(end));
      for (const char c : line) require(static_cast<unsigned char>(c) >= ' ');
    }
  }

  Memory lines_, json_;
};

/// The stand-in on a thread of its own.
class Serving {
 public:
  explicit Serving(driver::Script script) : script_(std::move(script)), stop_(::eventfd(0, EFD_CLOEXEC)) {
    loop_.watch(stop_.get(), [this] { loop_.stop(); });
  }
  ~Serving() {
    require(::eventfd_write(stop_.get(), 1) == 0);
    thread_.join();
  }
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;

 private:
  driver::Script script_;
  sys::Descriptor stop_;
  driver::EventLoop loop_;
  Fresh fresh_;
  Noting noting_;
  driver::Journal journal_ = noting_.journal();
  driver::Server server_{{loop_, registry().listener(), fresh_.driver, script_, journal_}, false};
  std::thread thread_{[this] { loop_.run(); }};
};

std::vector<std::uint8_t> takeBytes(Input& input, std::size_t count) {
  const std::string bytes = input.bytes(count);
  return {bytes.begin(), bytes.end()};
}

/// A record that the driver knows more often than not.
std::vector<std::uint8_t> takeStructure(Input& input) {
  std::vector<std::uint8_t> record;
  switch (input.number() % 4) {
    case 0:
      return {};
    case 1:
      record = {0x0e, 0, 2, 0, 0x0a, 0, 0, 1};
      for (std::size_t i = 0; i < 3; ++i)
        record.insert(record.end(), {static_cast<std::uint8_t>(input.number() % 5), 0});
      record.resize(driver::levelsRecordSize);
      return record;
    case 2:
      record = {0x10, 0, 0, 1};
      record.resize(driver::traceRequestSize);
      return record;
    default:
      return takeBytes(input, input.longNumber() % 4200);
  }
}

/// A client, and what the driver that is asked directly knows of it.
struct Client {
  io_connect_t connect = IO_OBJECT_NULL;
  driver::Session session;
};

class Play {
 public:
  explicit Play(Input input) : input_(std::move(input)), script_(input_.text()) {}

  void run() {
    if (!isPlayable()) return;
    const Serving serving(driver::parseScript(script_));
    service_ = ::IOServiceGetMatchingService(kIOMasterPortDefault, ::IOServiceMatching(driver::driverClass));
    if (service_ == IO_OBJECT_NULL) return require(!script_.empty());
    for (std::size_t step = 0; step < 64 && !input_.empty(); ++step) next();
    for (const Client& client : clients_) ::IOServiceClose(client.connect);
    ::IOObjectRelease(service_);
  }

 private:
  /// What ends the process, or makes a client wait for a while or for ever.
  bool isPlayable() const {
    for (const char* word : {"die", "delay", "silent", "sequence", "raw"}) {
      if (script_.find(word) != script_.npos) return false;
    }
    return true;
  }

  bool isCompared() const { return script_.empty(); }

  void next() {
    const std::size_t what = input_.number();
    if (clients_.empty() || what % 16 == 0) {
      open();
    } else if (what % 16 == 1) {
      speakFreely();
    } else {
      call(clients_[what / 16 % clients_.size()]);
    }
  }

  void open() {
    Client client;
    const kern_return_t result = ::IOServiceOpen(service_, mach_task_self(), 0, &client.connect);
    ++connected_;
    if (!isCompared() && result != KERN_SUCCESS) return;
    client.session.number = connected_;
    require(result ==
            ask(client.session, {.kind = static_cast<std::uint16_t>(iokit::Kind::Open)}, {}, {}).result);
    clients_.push_back(client);
  }

  void call(Client& client) {
    const auto selector = static_cast<std::uint32_t>(input_.number() % 5);
    std::vector<std::uint64_t> scalars(input_.number() % 18);
    for (std::uint64_t& scalar : scalars) scalar = input_.number() % 4;
    const std::vector<std::uint8_t> structure = takeStructure(input_);
    std::vector<std::uint8_t> output(input_.longNumber() % 4200);
    std::size_t count = output.size();
    const kern_return_t result = ::IOConnectCallMethod(
        client.connect, selector, scalars.data(), static_cast<std::uint32_t>(scalars.size()),
        structure.data(), structure.size(), nullptr, nullptr, output.data(), &count);
    require(count <= output.size());
    if (!isCompared()) return;
    if (scalars.size() > iokit::maxScalars || structure.size() > iokit::maxStructure)
      return require(result == kIOReturnBadArgument);
    const auto capacity = static_cast<std::uint32_t>(std::min(output.size(), iokit::maxStructure));
    const driver::Answer answer = ask(client.session,
                                      {.kind = static_cast<std::uint16_t>(iokit::Kind::Call),
                                       .selector = selector,
                                       .structureCapacity = capacity},
                                      scalars, structure);
    require(result == answer.result);
    if (result != kIOReturnSuccess) return require(count == output.size());
    output.resize(count);
    require(output == answer.structure);
  }

  /// Datagrams of a client that keeps to nothing; each gets a reply, or the end.
  void speakFreely() {
    const sys::Descriptor socket = iokit::makeSocket();
    const auto address = iokit::addressOf(registry().listener().path());
    require(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0);
    driver::Session session{.number = ++connected_};
    std::optional<std::uint32_t> last;
    for (std::size_t left = input_.number() % 4; left > 0; --left) {
      const std::vector<std::uint8_t> datagram = takeBytes(input_, input_.longNumber() % 4400);
      if (::send(socket.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) == -1) return;
      if (!hear(socket, session, datagram, last)) return;
    }
    leave(socket, session);
  }

  /// False at the end of the connection.
  bool hear(const sys::Descriptor& socket, driver::Session& session, iokit::Bytes datagram,
            std::optional<std::uint32_t>& last) {
    std::vector<std::uint8_t> reply(70000);
    const ssize_t count = ::recv(socket.get(), reply.data(), reply.size(), 0);
    reply.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (!isCompared()) return count > 0;
    const auto request = iokit::parseRequest(datagram);
    const bool follows =
        request && (!last || static_cast<std::int32_t>(request->header.sequence - *last) > 0);
    require(follows == (count > 0));
    if (!follows) {
      direct_.driver.closed(session);
      return false;
    }
    last = request->header.sequence;
    const driver::Answer answer = direct_.driver.answer(session, driver::callOf(*request));
    iokit::ReplyHeader header = iokit::replyTo(request->header);
    header.result = static_cast<std::uint32_t>(answer.result);
    std::vector<std::uint8_t> expected;
    iokit::makeReply(expected, header, {}, answer.structure);
    require(reply == expected);
    return true;
  }

  /// An empty datagram counts as the end, which the driver is seen to take.
  void leave(const sys::Descriptor& socket, driver::Session& session) {
    char nothing = 0;
    ::send(socket.get(), &nothing, 0, MSG_NOSIGNAL);
    require(::recv(socket.get(), &nothing, 1, 0) <= 0);
    direct_.driver.closed(session);
  }

  driver::Answer ask(driver::Session& session, iokit::RequestHeader header,
                     const std::vector<std::uint64_t>& scalars, const std::vector<std::uint8_t>& structure) {
    header.scalarCount = static_cast<std::uint32_t>(scalars.size());
    header.structureSize = static_cast<std::uint32_t>(structure.size());
    std::vector<std::uint8_t> datagram(iokit::maxRequest);
    std::uint8_t* end = iokit::encode(header, datagram.data());
    for (const std::uint64_t scalar : scalars) end = iokit::encode64(scalar, end);
    end = std::copy(structure.begin(), structure.end(), end);
    const auto request = iokit::parseRequest({datagram.data(), end});
    require(request.has_value());
    return direct_.driver.answer(session, driver::callOf(*request));
  }

  Input input_;
  std::string script_;
  io_service_t service_ = IO_OBJECT_NULL;
  Fresh direct_;
  std::deque<Client> clients_;
  unsigned connected_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    Play({data, size}).run();
  } catch (const std::runtime_error&) {  // a mistake in the script
  }
  return 0;
}
