#include "Request.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

#include "Menu.h"

namespace kes::extcap {

const char usage[] =
    "usage: kestrace-extcap --extcap-interfaces\n"
    "       kestrace-extcap --extcap-interface kes_vpn --extcap-dlts | --extcap-config\n"
    "       kestrace-extcap --extcap-interface kes_vpn --capture --fifo FILE\n"
    "                       [--driver-level N] [--ppp-level N] [--oid-level N] [--totals]\n"
    "                       [--extcap-control-in FIFO --extcap-control-out FIFO]\n"
    "       kestrace-extcap --install-for-user\n"
    "       kestrace-extcap --version | --help\n";

namespace {

struct Command {
  std::string_view name;
  Action action;
};

constexpr Command commands[] = {
    {"--extcap-interfaces", Action::Interfaces},
    {"--extcap-dlts", Action::LinkTypes},
    {"--extcap-config", Action::Options},
    {"--capture", Action::Capture},
    {"--install-for-user", Action::InstallForUser},
    {"--version", Action::Version},
    {"--help", Action::Help},
};

std::uint16_t mustBeLevel(const std::string& name, const std::string& value) {
  const auto level = parseLevel(value);
  if (!level) throw UsageError(name + " takes a number up to 65535, not " + value);
  return *level;
}

Levels& levelsOf(Request& request) { return request.levels ? *request.levels : request.levels.emplace(); }

struct Setter {
  std::string_view name;
  void (*set)(Request&, const std::string& value);
};

constexpr Setter setters[] = {
    {"--extcap-interface", [](Request& r, const std::string& value) { r.interface = value; }},
    {"--extcap-capture-filter", [](Request& r, const std::string& value) { r.filter = value; }},
    {"--extcap-control-in", [](Request& r, const std::string& value) { r.controlIn = value; }},
    {"--extcap-control-out", [](Request& r, const std::string& value) { r.controlOut = value; }},
    {"--fifo", [](Request& r, const std::string& value) { r.fifo = value; }},
    {driverOption,
     [](Request& r, const std::string& v) { levelsOf(r).driver = mustBeLevel(driverOption, v); }},
    {pppOption, [](Request& r, const std::string& v) { levelsOf(r).ppp = mustBeLevel(pppOption, v); }},
    {oidOption, [](Request& r, const std::string& v) { levelsOf(r).oid = mustBeLevel(oidOption, v); }},
};

bool isOption(const std::string& word) { return word.starts_with("--"); }

/// The words of a command line, one option at a time.
class Words {
 public:
  explicit Words(const std::vector<std::string>& words) : words_(words) {}

  bool next() {
    if (at_ == words_.size()) return false;
    const std::string& word = words_[at_++];
    const std::size_t equals = word.find('=');
    name_ = word.substr(0, equals);
    value_.reset();
    if (equals != word.npos) value_ = word.substr(equals + 1);
    return true;
  }

  const std::string& name() const { return name_; }

  const std::string& value() {
    if (!value_ && at_ == words_.size()) throw UsageError(name_ + " needs a value");
    if (!value_) value_ = words_[at_++];
    return *value_;
  }

  /// Of an option of which nobody knows whether it has one.
  void skipValue() {
    if (!value_ && at_ < words_.size() && !isOption(words_[at_])) ++at_;
  }

 private:
  const std::vector<std::string>& words_;
  std::size_t at_ = 0;
  std::string name_;
  std::optional<std::string> value_;
};

void take(Request& request, Words& words) {
  if (words.name() == totalsOption) {
    request.totals = true;
  } else if (const auto* found = std::ranges::find(commands, words.name(), &Command::name);
             found != std::end(commands)) {
    request.action = found->action;
  } else if (const auto* setter = std::ranges::find(setters, words.name(), &Setter::name);
             setter != std::end(setters)) {
    setter->set(request, words.value());
  } else if (words.name().starts_with("--extcap-")) {
    words.skipValue();
  } else {
    throw UsageError("unknown option " + words.name());
  }
}

bool concernsAnInterface(Action action) {
  return action == Action::LinkTypes || action == Action::Options || action == Action::CheckFilter ||
         action == Action::Capture;
}

void check(const Request& request) {
  if (!concernsAnInterface(request.action)) return;
  if (!request.interface.empty() && request.interface != interfaceName)
    throw UsageError("there is no interface " + request.interface);
  if (request.action != Action::Capture) return;
  if (request.fifo.empty()) throw UsageError("--capture needs --fifo");
  if (!request.filter.empty()) throw UsageError(noFilters);
}

}  // namespace

std::optional<std::uint16_t> parseLevel(const std::string& text) {
  std::uint16_t level = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, level);
  if (error != std::errc() || rest != end) return std::nullopt;
  return level;
}

Request parseRequest(const std::vector<std::string>& words) {
  Request request;
  bool isTold = false;
  for (Words rest(words); rest.next();) {
    take(request, rest);
    isTold = isTold || std::ranges::find(commands, rest.name(), &Command::name) != std::end(commands);
  }
  // A filter alone is a question: whether it could be used.
  if (!isTold && !request.filter.empty()) request.action = Action::CheckFilter;
  check(request);
  return request;
}

}  // namespace kes::extcap
