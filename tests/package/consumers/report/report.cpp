// A program of somebody else that says of errors where they come from: of one of its own, of one of the
// library, and of every class that crosses the border between the two.
#include <iostream>
#include <string>

#include "kes/version.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Ops.h"
#include "kespal/signal/Sender.h"
#include "pcaplib/Writer.h"

namespace {

/// The symbol of a frame, without address and file.
std::string symbolOf(const std::string& frame) {
  const std::size_t begin = frame.find('('), end = frame.rfind('+');
  return begin == frame.npos || end == frame.npos || end < begin ? frame
                                                                 : frame.substr(begin + 1, end - begin - 1);
}

void show(const kes::Exception& error) {
  std::cout << typeid(error).name() << ' ' << error.file() << ':' << error.line() << ' ' << error.function()
            << '\n';
  if (!error.backtrace().empty()) std::cout << "  " << symbolOf(error.backtrace().back()) << '\n';
}

template <typename Error, typename Call>
bool raises(Call call) {
  try {
    call();
  } catch (const Error& error) {
    show(error);
    return true;
  }
  return false;
}

}  // namespace

void raiseHere() { kes::raiseAt(KES_HERE, kes::NoSuchFileError("/nowhere", ENOENT)); }

int main() {
  kes::Exception::m_gen_backtraces = true;
  const char* nowhere = "/no/such/folder/file";
  bool fine = raises<kes::NoSuchFileError>(raiseHere);
  fine &= raises<kes::FsError>([=] { kes::fs::Ops::removeFile(nowhere); });
  fine &= raises<kes::NoSuchFileError>([=] { kes::fs::Ops::move(nowhere, nowhere); });
  fine &= raises<kes::OsError>([] { kes::signal::Sender::signalProc(-1, 0); });
  fine &= raises<kes::Exception>([=] { kes::pcap::Writer(nowhere, {}); });
  fine &= raises<kes::UsageError>([] { kes::raiseAt(KES_HERE, kes::UsageError("wrong")); });
  std::cout << "version " << KES_VERSION << '\n';
  return fine ? 0 : 1;
}
