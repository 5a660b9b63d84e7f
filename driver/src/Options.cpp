#include "Options.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "wire/Unix.h"

namespace kes::driver {

const char usage[] =
    "usage: kesdriver [--dir DIR] [--replay FILE.pcap[ng]]... [--live IFACE] [--rate PPS] [--loop]\n"
    "                 [--trace FILE|-] [--oversize cut|refuse] [--once] [--script FILE] [--verbose]\n"
    "                 [--pace] [--journal FILE|-]\n";

namespace {

struct Setter {
  std::string_view name;
  void (*set)(Options&, const std::string& value);
};

double parseRate(const std::string& value) {
  char* end = nullptr;
  const double rate = std::strtod(value.c_str(), &end);
  const bool isWhole = end != value.c_str() && *end == '\0';
  if (!isWhole || !std::isfinite(rate) || rate <= 0)
    throw UsageError("--rate takes packets per second, not " + value);
  return rate;
}

Oversize parseOversize(const std::string& value) {
  if (value == "cut") return Oversize::Cut;
  if (value == "refuse") return Oversize::Refuse;
  throw UsageError("--oversize takes cut or refuse, not " + value);
}

constexpr Setter withValue[] = {
    {"--dir", [](Options& o, const std::string& value) { o.directory = value; }},
    {"--replay", [](Options& o, const std::string& value) { o.replays.push_back(value); }},
    {"--live", [](Options& o, const std::string& value) { o.live = value; }},
    {"--rate", [](Options& o, const std::string& value) { o.rate = parseRate(value); }},
    {"--trace", [](Options& o, const std::string& value) { o.trace = value; }},
    {"--oversize", [](Options& o, const std::string& value) { o.oversize = parseOversize(value); }},
    {"--journal", [](Options& o, const std::string& value) { o.journal = value; }},
    {"--script", [](Options& o, const std::string& value) { o.script = value; }},
};

struct Flag {
  std::string_view name;
  bool Options::*flag;
};

constexpr Flag flags[] = {
    {"--loop", &Options::loop},       {"--once", &Options::once}, {"--pace", &Options::pace},
    {"--verbose", &Options::verbose}, {"--help", &Options::help},
};

void check(const Options& options) {
  if (options.live && !options.replays.empty()) throw UsageError("--live and --replay exclude each other");
  if (options.live && options.rate) throw UsageError("--rate is for --replay: live traffic has its own");
  if (options.rate && options.pace) throw UsageError("--rate and --pace exclude each other");
  if (options.loop && options.replays.empty()) throw UsageError("--loop needs --replay");
  if (options.rate && options.replays.empty()) throw UsageError("--rate needs --replay");
  if (options.pace && options.replays.empty()) throw UsageError("--pace needs --replay");
}

}  // namespace

Options parseOptions(const std::vector<std::string>& words) {
  Options options;
  options.directory = iokit::registryDirectory();
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (const auto* flag = std::ranges::find(flags, words[i], &Flag::name); flag != std::end(flags)) {
      options.*(flag->flag) = true;
      continue;
    }
    const std::size_t equals = words[i].find('=');
    const std::string name = words[i].substr(0, equals);
    const auto* option = std::ranges::find(withValue, name, &Setter::name);
    if (option == std::end(withValue)) throw UsageError("unknown option " + words[i]);
    if (equals == std::string::npos && i + 1 == words.size()) throw UsageError(name + " needs a value");
    option->set(options, equals == std::string::npos ? words[++i] : words[i].substr(equals + 1));
  }
  check(options);
  return options;
}

}  // namespace kes::driver
