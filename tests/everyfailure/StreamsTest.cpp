#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "kespal/fs/Access.h"
#include "kespal/fs/Copier.h"
#include "kespal/fs/Lock.h"
#include "kespal/fs/StreamFile.h"
#include "support/EveryFailure.h"
#include "support/FileStatus.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

namespace kes::fs {
namespace {

using test::Call;
using test::expectSurvival;
using test::modeOf;
using test::Raises;
using test::raises;
using test::readFile;
using test::Stage;
using test::writeFile;

const std::string text(3000, 't');

TEST(EveryFailureOfStreams, BytesAreWrittenReadAndSoughtFor) {
  expectSurvival(
      {.operations = {"kes::fs::StreamFile::read", "kes::fs::StreamFile::write", "kes::fs::StreamFile::flush",
                      "kes::fs::StreamFile::seek", "kes::fs::File::truncate"},
       .raises = {raises("kes::OsError"), raises("kes::NoSuchProcessError", {}, "read")},
       .play = [](Stage& stage) {
         const std::string path = stage / "it";
         StreamFile file;
         file.open(path.c_str(), File::READ_WRITE, File::CREATE);
         std::size_t count = 0;
         stage.act([&] { count = file.write(text.data(), text.size()); });
         stage.check(readFile(path) == text.substr(0, count), "what it says it wrote is there, and no more");
         stage.check(stage.succeeded() == (count > 0), "a write takes something");
         writeFile(path, text);
         stage.act([&] { file.flush(); });
         std::size_t at = 1;
         stage.act([&] { at = file.seek(0); });
         stage.check(at == (stage.succeeded() ? 0 : 1), "the place");
         if (!stage.succeeded()) file.seek(0);
         std::string found(2 * text.size(), '-');
         count = 0;
         stage.act([&] { count = file.read(found.data(), found.size()); });
         stage.check(stage.succeeded() == (count > 0) && text.starts_with(found.substr(0, count)), "bytes");
         stage.check(found[count] == '-', "none behind them");
         stage.act([&] { file.truncate(7); });
         stage.check(readFile(path).size() == (stage.succeeded() ? 7 : text.size()), "the length");
       }});
}

TEST(EveryFailureOfStreams, APipeIsMade) {
  expectSurvival({.operations = {"kes::fs::Pipe::make"},
                  .raises = {raises("kes::OsError", {}, "make")},
                  .play = [](Stage& stage) {
                    Pipe pipe;
                    const sys::AtEnd closing([&pipe] {
                      for (const int end : {pipe.readEnd, pipe.writeEnd}) {
                        if (end != -1) ::close(end);
                      }
                    });
                    stage.act([&] { pipe = Pipe::make({Pipe::ReadEnd, Pipe::WriteEnd}); });
                    stage.check((pipe.readEnd != -1) == stage.succeeded(), "one end");
                    stage.check((pipe.writeEnd != -1) == stage.succeeded(), "and the other");
                    char byte = 'b';
                    const bool passes =
                        ::write(pipe.writeEnd, &byte, 1) == 1 && ::read(pipe.readEnd, &byte, 1) == 1;
                    stage.check(passes == stage.succeeded(), "what one gets the other gives");
                  }});
}

TEST(EveryFailureOfStreams, APipesEndIsTakenOver) {
  expectSurvival({.operations = {"kes::fs::File::open", "kes::fs::File::~File"},
                  .raises = {raises("kes::OsError", {}, "close")},
                  .play = [](Stage& stage) {
                    int ends[2];
                    if (::pipe2(ends, O_CLOEXEC) != 0) return;
                    Pipe pipe{ends[0], ends[1]};
                    const sys::AtEnd closing([&pipe] {
                      for (const int end : {pipe.readEnd, pipe.writeEnd}) {
                        if (end != -1) ::close(end);
                      }
                    });
                    {
                      File file;
                      file.open("/dev/null", File::READ);
                      stage.act([&] { file.open(pipe, true); });
                      stage.check((pipe.readEnd == -1) == stage.succeeded(), "one of the two has it");
                      stage.check((file.fd() == ends[0]) == stage.succeeded(), "the one that was said");
                    }
                    auto writer = std::make_unique<File>();
                    writer->open(pipe, false);
                    stage.act([&] { writer.reset(); });
                    stage.check(stage.succeeded(), "the end of an object raises nothing");
                  }});
}

TEST(EveryFailureOfStreams, AnOpenFilesRightsAreChanged) {
  expectSurvival(
      {.operations = {"kes::fs::File::setAccess"},
       .raises = {raises("kes::OsError", {}, "setAccessPriv"), raises("kes::FsError", {}, "setOwnership")},
       .play = [](Stage& stage) {
         const std::string path = stage / "it";
         File file;
         file.open(path.c_str(), File::WRITE, File::CREATE);
         stage.act([&] { file.setAccess(Access(::geteuid(), ::getegid(), 04755)); });
         if (stage.succeeded()) stage.check(modeOf(path) == 04755, "the rights");
         stage.check(file.fd() != -1, "it stays open");
       }});
}

TEST(EveryFailureOfStreams, TheNullFilesAreMadeAndGiven) {
  expectSurvival(
      {.operations = {"kes::fs::File::init", "kes::fs::File::exit"},
       .raises = {raises("kes::FsError", {}, "open"), raises("kes::FileAccessError", {}, "open"),
                  raises("kes::FileBusyError", {}, "open"), raises("kes::NoSuchFileError", {}, "open")},
       .play = [](Stage& stage) {
         stage.act([] { File::init(); });
         stage.check((File::m_null_in != nullptr) == stage.succeeded(), "both");
         stage.check((File::m_null_out != nullptr) == stage.succeeded(), "or none");
         stage.act([] { File::exit(); });
         stage.check(stage.succeeded() && File::m_null_in == nullptr, "none afterwards");
         File::init();
         File::exit();
       }});
}

TEST(EveryFailureOfStreams, ALockIsTakenAndGivenBack) {
  expectSurvival(
      {.operations = {"kes::fs::Lock::readLock", "kes::fs::Lock::writeLock", "kes::fs::Lock::tryReadLock",
                      "kes::fs::Lock::tryWriteLock", "kes::fs::Lock::unlock", "kes::fs::Lock::set",
                      "kes::fs::Lock::Lock", "kes::fs::ScopedLock::~ScopedLock"},
       .raises = {raises("kes::OsError")},
       .play = [](Stage& stage) {
         const std::string path = stage / "it";
         File file, other;
         file.open(path.c_str(), File::WRITE, File::CREATE);
         other.open(path.c_str(), File::WRITE);
         Lock lock, theirs;
         lock.set(file.fd());
         theirs.set(other.fd());
         const auto expectHeld = [&](bool held) {
           const bool free = theirs.tryWriteLock();
           if (free) theirs.unlock();
           stage.check(free != held, "it is held if that was said");
         };
         stage.act([&] { lock.readLock(); });
         expectHeld(stage.succeeded());
         stage.act([&] { lock.writeLock(); });
         if (stage.succeeded()) expectHeld(true);
         lock.writeLock();
         stage.act([&] { lock.unlock(); });
         expectHeld(!stage.succeeded());
         lock.unlock();
         std::FILE* const stream = ::fdopen(::dup(file.fd()), "w");
         std::optional<Lock> ofStream;
         stage.act([&] { ofStream.emplace(stream); });
         stage.check(stage.succeeded() && ofStream.has_value(), "a stream's lock");
         std::fclose(stream);
         bool taken = false;
         stage.act([&] { taken = lock.tryReadLock(); });
         stage.check(taken == stage.succeeded() || stage.isRefused(Call::flock, EWOULDBLOCK), "read");
         stage.act([&] { taken = lock.tryWriteLock(); });
         if (!stage.succeeded() || stage.isRefused(Call::flock)) lock.writeLock();
         std::optional<ScopedLock> scoped(std::in_place, lock);
         stage.act([&] { scoped.reset(); });
         stage.check(stage.succeeded(), "the end of a scope raises nothing");
         if (!stage.isRefused(Call::flock)) expectHeld(false);
       }});
}

TEST(EveryFailureOfStreams, ALockIsWaitedForWithALimit) {
  expectSurvival(
      {.operations = {"kes::fs::Lock::readLockTimed", "kes::fs::Lock::writeLockTimed"},
       .raises = {raises("kes::OsError")},
       .play = [](Stage& stage) {
         const std::string path = stage / "it";
         File file, other;
         file.open(path.c_str(), File::WRITE, File::CREATE);
         other.open(path.c_str(), File::WRITE);
         Lock lock, theirs;
         lock.set(file.fd());
         theirs.set(other.fd());
         const auto isHeld = [&] {
           const bool free = theirs.tryWriteLock();
           if (free) theirs.unlock();
           return !free;
         };
         bool taken = false;
         stage.act([&] { taken = lock.readLockTimed(time::Milliseconds(4)); });
         stage.check(taken == isHeld(), "it is held if that was said");
         stage.check(taken == stage.succeeded() || stage.isRefused(Call::flock, EWOULDBLOCK), "it was free");
         lock.unlock();
         theirs.readLock();
         taken = true;
         stage.act([&] { taken = lock.writeLockTimed(time::Milliseconds(4)); });
         stage.check(taken != stage.succeeded(), "it is somebody else's");
         theirs.unlock();
         stage.check(!isHeld() && lock.writeLockTimed(time::Milliseconds(0)), "it is free, and to be had");
         lock.unlock();
       }});
}

const std::vector<Raises> copyErrors = {raises("kes::FsError"),
                                        raises("kes::OsError"),
                                        raises("kes::FileAccessError", {}, "open"),
                                        raises("kes::FileBusyError"),
                                        raises("kes::NoSuchFileError"),
                                        raises("kes::IsASymlinkError", {}, "open"),
                                        raises("kes::NoSuchProcessError")};

/// One of the four forms of a copy.
void expectCopied(const std::function<void(Copier&, const std::string&, const std::string&)>& copy) {
  expectSurvival(
      {.operations = {"kes::fs::Copier::copy", "kes::fs::Copier::Copier", "kes::fs::Copier::allocateBuffer",
                      "kes::fs::Copier::haveBuffer", "kes::fs::Copier::getBufferPointer"},
       .raises = copyErrors,
       .play =
           [&copy](Stage& stage) {
             const std::string from = stage / "from", to = stage / "to";
             writeFile(from, text);
             writeFile(to, "former");
             ::chmod(from.c_str(), 0640);
             Copier copier(nullptr, 0, Flags::COPY_ACCESS | Flags::OVERWRITE);
             stage.act([&] { copy(copier, from, to); });
             stage.check(readFile(from) == text, "the source is what it was");
             if (stage.succeeded()) {
               stage.check(readFile(to) == text, "the copy is whole");
               stage.check(modeOf(to) == 0640, "with the rights");
             }
             copier.copy(from.c_str(), to.c_str());
             stage.check(readFile(to) == text, "it can be used again");
           },
       .mayLeaveFiles = true});
}

TEST(EveryFailureOfStreams, AFileIsCopiedByName) {
  expectCopied([](Copier& copier, const std::string& from, const std::string& to) {
    copier.copy(from.c_str(), to.c_str());
  });
}

TEST(EveryFailureOfStreams, AnOpenFileIsCopied) {
  expectCopied([](Copier& copier, const std::string& from, const std::string& to) {
    StreamFile source, target;
    source.open(from.c_str(), File::READ);
    target.open(to.c_str(), File::WRITE);
    copier.copy(source, target);
  });
}

TEST(EveryFailureOfStreams, ACopyIsMadeInMixedForms) {
  expectCopied([](Copier& copier, const std::string& from, const std::string& to) {
    StreamFile target;
    target.open(to.c_str(), File::WRITE);
    copier.copy(from.c_str(), target);
  });
  expectCopied([](Copier& copier, const std::string& from, const std::string& to) {
    StreamFile source;
    source.open(from.c_str(), File::READ);
    copier.copy(source, to.c_str());
  });
}

}  // namespace
}  // namespace kes::fs
