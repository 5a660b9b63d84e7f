#include <string>
#include <vector>

#include "Input.h"
#include "Request.h"
#include "Target.h"
#include "Toolbar.h"

using namespace kes::extcap;

namespace {

/// Any words: what is accepted can be done.
void askFor(Input input) {
  std::vector<std::string> words;
  while (!input.empty()) words.push_back(input.text());
  try {
    const Request request = parseRequest(words);
    if (request.action == Action::Capture) require(!request.fifo.empty() && request.filter.empty());
    if (request.action == Action::CheckFilter) require(!request.filter.empty());
  } catch (const UsageError& error) {
    require(*error.what() != '\0');
  }
}

/// Any bytes from a toolbar, in pieces of any size: the same messages as in one piece, and each as it was
/// sent.
void listenTo(Input input) {
  const std::size_t piece = input.number() + 1;
  const std::string all = input.rest();
  std::string whole = all, unread;
  for (std::size_t at = 0; at < all.size(); at += piece) {
    unread += all.substr(at, piece);
    while (const auto message = takeMessage(unread)) {
      const auto same = takeMessage(whole);
      require(same && encode(*same) == encode(*message));
      require(all.find(encode(*message)) != all.npos);
    }
  }
  require(!takeMessage(whole));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  if (input.number() % 2 == 0) {
    askFor(input);
  } else {
    listenTo(input);
  }
  return 0;
}
