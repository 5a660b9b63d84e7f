// Records the datagrams of a socket as a capture that any analyser opens, each with a comment and the time in
// nanoseconds, and says in the end what became of them.
//
//   record_datagrams FILE     records three datagrams of its own to FILE, in the pcapng format
//   record_datagrams          the same to a temporary file, which it removes
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <iostream>
#include <string>

#include "kespal/error/Exception.h"
#include "kespal/error/OsError.h"
#include "kespal/fs/File.h"
#include "kespal/fs/Ops.h"
#include "pcaplib/Writer.h"

namespace {

using kes::pcap::Format;
using kes::pcap::Writer;

/// The first number of those that are left to everybody's own use.
constexpr std::uint32_t ownLinkType = 147;

/// Two sockets, each of which receives what is sent to the other.
class Link {
 public:
  Link() {
    int fds[2];
    kes::check(KES_HERE, ::socketpair(AF_UNIX, SOCK_DGRAM, 0, fds));
    kes::fs::Pipe sockets{fds[0], fds[1]};
    near_.open(sockets, /*readEnd=*/true);
    far_.open(sockets, /*readEnd=*/false);
  }

  void send(const std::string& text) const {
    kes::check(KES_HERE, ::send(far_.fd(), text.data(), text.size(), 0));
  }
  std::size_t receive(std::array<char, 2048>& buffer) const {
    return static_cast<std::size_t>(
        kes::check(KES_HERE, ::recv(near_.fd(), buffer.data(), buffer.size(), 0)));
  }

 private:
  kes::fs::File near_, far_;
};

void record(const Link& link, Writer& writer, int count) {
  std::array<char, 2048> buffer;
  for (int number = 1; number <= count; ++number) {
    const auto size = static_cast<std::uint32_t>(link.receive(buffer));
    const std::string comment = "datagram " + std::to_string(number);
    const int errnum = writer.write({.data = buffer.data(), .length = size, .comment = comment.c_str()});
    if (errnum != 0) std::cerr << comment << " is lost: " << std::strerror(errnum) << '\n';
  }
}

void run(const std::string& path) {
  const Link link;
  for (const char* text : {"hello", "how are you", "good night"}) link.send(text);
  Writer writer(path.c_str(), {.format = Format::Pcapng,
                               .linkType = ownLinkType,
                               .interfaceName = "socketpair",
                               .comment = "recorded by an example"});
  record(link, writer, 3);
  writer.close();
  const Writer::Totals& totals = writer.totals();
  std::cout << totals.written << " datagrams, " << totals.bytes << " bytes, " << totals.lost
            << " lost: " << path << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 2) return run(argv[1]), 0;
    std::string path = "datagrams-";
    kes::fs::File().open(kes::fs::File::TempType(), path);
    run(path);
    kes::fs::Ops::removeFile(path.c_str());
    return 0;
  } catch (const kes::Exception& error) {
    std::cerr << "record_datagrams: " << error.text() << '\n';
    return 1;
  }
}
