#include "Menu.h"

namespace kes::extcap {

namespace {

/// A line of the protocol: a word, and then its parts.
class Line {
 public:
  explicit Line(const char* word) : text_(word) { text_ += ' '; }

  Line& with(const char* name, const std::string& value) {
    text_.append("{").append(name).append("=").append(value).append("}");
    return *this;
  }
  Line& with(const char* name, unsigned value) { return with(name, std::to_string(value)); }

  operator std::string() const { return text_ + '\n'; }

 private:
  std::string text_;
};

/// One of the three parts of the driver that have a level.
struct Part {
  Control control;
  const char* option;
  const char* label;
  const char* tooltip;
};

constexpr Part parts[] = {
    {DriverLevel, driverOption, "Driver level", "Debug level of the driver itself, 0 to 65535; 0 is silent"},
    {PppLevel, pppOption, "PPP level", "Debug level of its PPP part, 0 to 65535; 0 is silent"},
    {OidLevel, oidOption, "OID level", "Debug level of its OID part, 0 to 65535; 0 is silent"},
};

}  // namespace

std::string interfaces() {
  std::string text = Line("extcap").with("version", KES_VERSION).with("display", "VPN driver");
  text += Line("interface").with("value", interfaceName).with("display", "VPN driver");
  for (const Part& part : parts) {
    text += Line("control")
                .with("number", part.control)
                .with("type", "string")
                .with("display", part.label)
                .with("tooltip", part.tooltip)
                .with("validation", "^[0-9]{1,5}$");
  }
  text += Line("control")
              .with("number", TraceLog)
              .with("type", "button")
              .with("role", "logger")
              .with("display", "Trace")
              .with("tooltip", "What the driver says at these levels");
  return text;
}

std::string linkTypes() {
  return Line("dlt").with("number", linkType).with("name", "EN10MB").with("display", "Ethernet");
}

std::string options() {
  std::string text;
  unsigned number = 0;
  for (const Part& part : parts) {
    text += Line("arg")
                .with("number", number++)
                .with("call", part.option)
                .with("display", part.label)
                .with("tooltip", part.tooltip)
                .with("type", "integer")
                .with("range", "0,65535");
  }
  text += Line("arg")
              .with("number", number)
              .with("call", totalsOption)
              .with("display", "Totals at the end")
              .with("tooltip", "Tell what came of the capture even if nothing was lost")
              .with("type", "boolflag");
  return text;
}

}  // namespace kes::extcap
