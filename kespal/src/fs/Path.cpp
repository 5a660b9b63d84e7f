#include "kespal/fs/Path.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "kespal/Helper.h"
#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Ops.h"

namespace kes::fs {

namespace {

/// Where the text behind the last '/' starts; 0 without one. Looks at eight bytes at a time: the standard
/// searches backwards byte by byte, and this search is most of what a base name costs.
std::size_t behindLastSlash(std::string_view text) {
  constexpr std::uint64_t slashes = 0x2F2F2F2F2F2F2F2F, low = 0x7F7F7F7F7F7F7F7F;
  std::size_t end = text.size();
  for (; end >= sizeof slashes; end -= sizeof slashes) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + end - sizeof word, sizeof word);
    word ^= slashes;                              // a slash is a byte of 0 now,
    word = ~(((word & low) + low) | word | low);  // and now its highest bit is all that is set
    if (word == 0) continue;
    const int bits =
        std::endian::native == std::endian::little ? std::countl_zero(word) : std::countr_zero(word);
    return end - static_cast<std::size_t>(bits / 8);
  }
  while (end > 0 && text[end - 1] != '/') --end;
  return end;
}

std::string_view baseOf(const Path& path) { return std::string_view(path).substr(behindLastSlash(path)); }

/// Takes the next component off the front of `rest`; empty when there is none.
std::string_view nextComponent(std::string_view& rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
  const std::string_view component = rest.substr(0, rest.find('/'));
  rest.remove_prefix(component.size());
  return component;
}

/// The working directory, cleansed; empty when there is none that has a name.
Path workingDirectory() {
  try {
    return Ops::cwd();
  } catch (const Exception&) {
    return {};
  }
}

}  // namespace

void Path::components(std::vector<std::string>& parts) const {
  helper::split(*this, '/', parts, /*strip=*/false, /*keepEmpty=*/false);
}

Path& Path::join(const std::vector<std::string>& parts, bool absolute) {
  std::string text(absolute ? "/" : "");
  for (const std::string& part : parts) {
    if (&part != &parts.front()) text += '/';
    text += part;
  }
  swap(text);
  return *this;
}

Path Path::operator+(const char* tail) const {
  return tail != nullptr ? joined(tail, std::char_traits<char>::length(tail)) : joined("", 0);
}

Path Path::joined(const char* tail, std::size_t length) const {
  Path path;
  path.reserve(size() + 1 + length);
  path.append(*this).push_back('/');
  path.append(tail, length);
  return path;
}

std::string Path::basename() const { return std::string(baseOf(*this)); }

Path& Path::assignBasename() {
  erase(0, behindLastSlash(*this));
  return *this;
}

Path& Path::assignDirname() {
  const std::size_t behind = behindLastSlash(*this);
  if (behind == 0) {
    assign(1, '.');
  } else if (size() != 1) {
    erase(behind - 1);
  }
  return *this;
}

Path& Path::strip(std::size_t n) {
  for (; n != 0 && !empty(); --n) {
    const std::size_t behind = behindLastSlash(*this);
    erase(behind != 0 ? behind - 1 : 0);
  }
  return *this;
}

std::string Path::extension(bool first) const {
  const std::string_view base = baseOf(*this);
  const std::size_t dot = first ? base.find('.') : base.rfind('.');
  return dot != base.npos ? std::string(base.substr(dot + 1)) : std::string();
}

void Path::extensions(std::vector<std::string>& parts) const {
  helper::split(basename(), '.', parts, /*strip=*/false, /*keepEmpty=*/false);
}

std::string Path::strippedBasename() const {
  const std::string_view base = baseOf(*this);
  const std::size_t start = std::min(base.find_first_not_of('.'), base.size());
  return std::string(base.substr(start, base.find('.', start) - start));
}

Path Path::intersection(const Path& other) const {
  Path common;
  if (isAbsolute() != other.isAbsolute()) return common;
  if (isAbsolute()) common.push_back('/');
  std::string_view ours = *this, theirs = other;
  for (std::string_view part; !(part = nextComponent(ours)).empty() && part == nextComponent(theirs);) {
    if (!common.empty() && common.back() != '/') common.push_back('/');
    common.append(part);
  }
  return common;
}

bool Path::exists() const { return Ops::exists(c_str(), /*follow=*/true); }

Path& Path::assignAbsolute() {
  std::vector<std::string> parts;
  components(parts);
  if (parts.empty()) return *this;

  const bool absolute = isAbsolute();
  const bool toParent = absolute && parts.front() == "..";
  Path cwd = workingDirectory();
  if (absolute && !toParent && parts.front() != ".") return join(parts, absolute);
  if (cwd.empty()) raiseAt(KES_HERE, RuntimeError("can't expand path, because CWD doesn't exist"));

  if (toParent) cwd.assignDirname();
  if (absolute) {
    parts.front() = cwd;
  } else {
    parts.insert(parts.begin(), cwd);
  }
  return join(parts, absolute);
}

Path& Path::assignResolved() {
  std::string target;
  try {
    Ops::readlink(c_str(), target);
  } catch (const NotASymlinkError&) {
    return *this;
  }
  swap(Path(*this).strip(1).append(1, '/').append(target));
  return *this;
}

}  // namespace kes::fs
