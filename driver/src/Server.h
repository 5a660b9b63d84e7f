#pragma once

#include <array>
#include <unordered_map>

#include "Driver.h"
#include "EventLoop.h"
#include "Journal.h"
#include "Listener.h"
#include "Script.h"

namespace kes::driver {

/// The connections to the driver: takes requests from them, gives replies, plays the script. A client that
/// breaks the protocol is hung up on. All parts must outlive the loop's run.
class Server {
 public:
  struct Parts {
    EventLoop& loop;
    const Listener& listener;
    Driver& driver;
    Script& script;
    Journal& journal;
  };

  /// With `once` the loop is stopped when the last connection that made a request has closed.
  Server(const Parts& parts, bool once);

  std::uint64_t brokenProtocols() const { return brokenProtocols_; }

 private:
  struct Client {
    sys::Descriptor socket;
    Session session{};
    std::uint32_t lastSequence = 0;
    bool hasSpoken = false;
  };

  void listen();
  void acceptAll();
  void admit(sys::Descriptor socket);
  void serve(unsigned number);
  void handle(Client& client, iokit::Bytes datagram);
  bool followsOn(Client& client, const iokit::Request& request);
  void perform(Client& client, const Call& call);
  void play(unsigned number, const Play& play, std::vector<std::uint8_t> datagram);
  void fulfil(unsigned number, Play::Fate fate, iokit::Bytes datagram);
  bool send(const Client& client, iokit::Bytes datagram);
  void breakOff(const Client& client, iokit::Bytes datagram);
  void hangUp(unsigned number, const char* why);
  [[noreturn]] static void die();

  Parts parts_;
  bool once_;
  unsigned lastNumber_ = 0;
  std::unordered_map<unsigned, Client> clients_;
  unsigned speakers_ = 0;  // connections that made a request: one that only looked for the service is none
  std::uint64_t brokenProtocols_ = 0;
  // One byte more than any request: a longer datagram shows by its length.
  std::array<std::uint8_t, iokit::maxRequest + 1> buffer_{};
  std::vector<std::uint8_t> reply_;
};

}  // namespace kes::driver
