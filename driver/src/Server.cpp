#include "Server.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>

#include "sys/Retry.h"

namespace kes::driver {
namespace {

using namespace std::chrono_literals;
using Fate = Play::Fate;

bool repliesFirst(Fate fate) {
  return fate == Fate::Reply || fate == Fate::Twice || fate == Fate::ReplyThenHangUp ||
         fate == Fate::ReplyThenDie;
}

bool outOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Server::Server(const Parts& parts, bool once) : parts_(parts), once_(once) { listen(); }

void Server::listen() {
  parts_.loop.watch(parts_.listener.fd(), [this] { acceptAll(); });
}

void Server::acceptAll() {
  sys::Descriptor socket;
  while ((socket = parts_.listener.accept())) admit(std::move(socket));
  if (!outOfDescriptors(errno)) return;
  // The listener stays readable: look again in a while instead of at once.
  parts_.loop.forget(parts_.listener.fd());
  parts_.loop.at(EventLoop::Clock::now() + 100ms, [this] { listen(); });
}

void Server::admit(sys::Descriptor socket) {
  const unsigned number = ++lastNumber_;
  const int fd = socket.get();
  Client& client = clients_[number];
  client.socket = std::move(socket);
  client.session.number = number;
  parts_.journal.connected(client.session);
  parts_.loop.watch(fd, [this, number] { serve(number); });
  const Play* scripted = parts_.script.next(CallName::Connect);
  if (scripted == nullptr) return;
  if (scripted->fate == Fate::Die) die();
  if (scripted->fate == Fate::HangUp) hangUp(number, "as the script says");
}

void Server::serve(unsigned number) {
  Client& client = clients_.at(number);
  const ssize_t got =
      sys::retry([&] { return ::recv(client.socket.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT); });
  if (got > 0) return handle(client, {buffer_.data(), static_cast<std::size_t>(got)});
  if (got == -1 && errno == EAGAIN) return;
  hangUp(number, "by the client");
}

void Server::handle(Client& client, iokit::Bytes datagram) {
  const auto request = iokit::parseRequest(datagram);
  if (!request || !followsOn(client, *request)) return breakOff(client, datagram);
  const Call call = callOf(*request);
  parts_.journal.received(client.session, call);
  const Play* scripted = parts_.script.next(call.name);
  if (scripted == nullptr) return perform(client, call);
  parts_.script.check(*scripted, *request);
  const bool asUsual = scripted->leavesAnswer() && repliesFirst(scripted->fate);
  const Answer answer = asUsual ? parts_.driver.answer(client.session, call) : Answer();
  play(client.session.number, *scripted, scripted->datagram(request->header, answer));
}

// Numbers only go up (a cancelled call may skip some): one that does not tells of two programs that share a
// connection and do not know it.
bool Server::followsOn(Client& client, const iokit::Request& request) {
  const auto step = static_cast<std::int32_t>(request.header.sequence - client.lastSequence);
  if (client.hasSpoken && step <= 0) return false;
  if (!client.hasSpoken) ++speakers_;
  client.hasSpoken = true;
  client.lastSequence = request.header.sequence;
  return true;
}

void Server::perform(Client& client, const Call& call) {
  const Answer answer = parts_.driver.answer(client.session, call);
  iokit::ReplyHeader header = iokit::replyTo(call.request.header);
  header.result = static_cast<std::uint32_t>(answer.result);
  iokit::makeReply(reply_, header, {}, answer.structure);
  send(client, reply_);
}

void Server::play(unsigned number, const Play& play, std::vector<std::uint8_t> datagram) {
  if (play.delay > 0ms) {
    parts_.loop.at(
        EventLoop::Clock::now() + play.delay,
        [this, number, fate = play.fate, later = std::move(datagram)] { fulfil(number, fate, later); });
  } else {
    fulfil(number, play.fate, datagram);
  }
}

void Server::fulfil(unsigned number, Fate fate, iokit::Bytes datagram) {
  const auto found = clients_.find(number);
  if (found == clients_.end()) return;  // it left while its reply was delayed
  const bool delivered = !repliesFirst(fate) || send(found->second, datagram);
  switch (fate) {
    case Fate::Twice:
      if (delivered) send(found->second, datagram);
      return;
    case Fate::HangUp:
    case Fate::ReplyThenHangUp:
      return hangUp(number, "as the script says");
    case Fate::Die:
    case Fate::ReplyThenDie:
      die();
    case Fate::Reply:
    case Fate::Silent:
      return;
  }
}

// A client waits for its reply and so has room for it; one that has not is not what it says.
bool Server::send(const Client& client, iokit::Bytes datagram) {
  parts_.journal.sent(client.session, datagram);
  const int fd = client.socket.get();
  const ssize_t sent =
      sys::retry([&] { return ::send(fd, datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT); });
  if (sent == -1) hangUp(client.session.number, std::system_category().message(errno).c_str());
  return sent != -1;
}

void Server::breakOff(const Client& client, iokit::Bytes datagram) {
  ++brokenProtocols_;
  parts_.journal.malformed(client.session, datagram);
  hangUp(client.session.number, "the protocol is broken");
}

void Server::hangUp(unsigned number, const char* why) {
  const auto found = clients_.find(number);
  if (found == clients_.end()) return;
  Client& client = found->second;
  parts_.loop.forget(client.socket.get());
  parts_.journal.closed(client.session, why);
  parts_.driver.closed(client.session);
  const bool hadSpoken = client.hasSpoken;
  clients_.erase(found);
  if (hadSpoken && --speakers_ == 0 && once_) parts_.loop.stop();
}

// As abrupt as a crash: no totals, and the socket's name is left behind.
void Server::die() { std::_Exit(EXIT_FAILURE); }

}  // namespace kes::driver
