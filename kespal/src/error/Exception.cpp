#include "kespal/error/Exception.h"

#include "Lasting.h"
#include "kespal/Helper.h"
#include "kespal/proc/Env.h"
#include "sys/AtEnd.h"

namespace kes {

bool Exception::m_gen_backtraces = false;

namespace {

constinit Lasting<Backtrace> g_none;

/// What an error without a trace gives.
const Backtrace& none() noexcept {
  g_none.make();
  return g_none.value;
}

[[maybe_unused]] const Backtrace& g_madeAtTheStart = none();

}  // namespace

void Exception::init() {
  std::string ignored;
  m_gen_backtraces = proc::Env::get("KES_BACKTRACE", ignored);
  // The first capture of a process loads the unwinder and allocates: not in a forked child, please.
  if (m_gen_backtraces) (void)Backtrace::get();
}

Exception::~Exception() = default;

Exception::Exception(const Exception& other)
    : std::exception(other),
      next_(other.next_ ? other.next_->clone() : nullptr),
      file_(other.file_),
      line_(other.line_),
      function_(other.function_),
      backtrace_(other.backtrace_) {}

Exception::Exception(Exception&& other) noexcept
    : next_(std::move(other.next_)),
      file_(other.file_),
      line_(other.line_),
      function_(other.function_),
      backtrace_(std::move(other.backtrace_)) {
  other.whatText_.clear();  // it speaks of what is gone
}

void Exception::setNext(const Exception& cause) { next_.reset(cause.clone()); }

void Exception::setSite(const Site& site) noexcept {
  file_ = site.file;
  line_ = site.line;
  function_ = site.function;
}

void Exception::setBacktrace(Backtrace&& backtrace) {
  backtrace_ = std::make_shared<const Backtrace>(std::move(backtrace));
}

const Backtrace& Exception::backtrace() const noexcept { return backtrace_ ? *backtrace_ : none(); }

const char* Exception::what() const noexcept { return explanation().c_str(); }

const std::string& Exception::explanation() const {
  if (!whatText_.empty()) return whatText_;
  sys::AtEnd dropping([this] { whatText_.clear(); });  // half a text would be taken for the whole one
  whatText_ = whereText();
  moreWhat();
  dropping.dismiss();
  return whatText_;
}

// Strings, not streams: a stream loses text for want of memory without a word, groups the digits of the line
// where the locale wants that, and takes the locale's lock, which nobody may own in a forked child.
std::string Exception::whereText() const {
  std::string where;
  if (file_ != nullptr) {
    where = std::string("Exception occured at \"") + file_ + ':' + std::to_string(line_) + " (" +
            (function_ != nullptr ? function_ : "") + ")\"\n\n";
  }
  if (!backtrace_ || backtrace_->empty()) return where;
  where += "Function call backtrace:\n\n";
  for (auto frame = backtrace_->rbegin(); frame != backtrace_->rend(); ++frame) where += *frame + '\n';
  return where + "\n\n";
}

std::string Exception::text() const { return explanation(); }

void Exception::moreWhat() const {}

std::vector<std::string> Exception::allTexts() const {
  std::vector<std::string> texts;
  for (const Exception* error = this; error != nullptr; error = error->next()) texts.push_back(error->text());
  return texts;
}

std::string Exception::textList() const {
  std::string list;
  int number = 0;
  for (const std::string& text : allTexts()) list += '#' + std::to_string(++number) + ") " + text + '\n';
  return list;
}

std::string Exception::exStack() const {
  std::string stack;
  std::vector<std::string> lines;
  int number = 0;
  for (const Exception* error = this; error != nullptr; error = error->next()) {
    stack += "\n#" + std::to_string(++number) + ")\n";
    helper::split(error->explanation(), '\n', lines, /*strip=*/false, /*keepEmpty=*/true);
    for (const std::string& line : lines) stack += '\t' + line + '\n';
  }
  return stack;
}

}  // namespace kes
