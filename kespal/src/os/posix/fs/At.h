#pragma once

#include <dirent.h>

#include <string>

#include "kespal/error/Site.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"
#include "sys/Owner.h"

/// Operations of Ops, Info and Dir on what a descriptor leads to: `name` is looked up in an open `directory`,
/// or in the working directory for AT_FDCWD. They raise what their namesakes raise, as if they were these,
/// and name `path`, which the system is never given: it may be longer than a path can be.
namespace kes::fs::at {

Info get(int directory, const char* name, const std::string& path, bool follow);
void removeFile(int directory, const char* name, const std::string& path);
void removeDir(int directory, const char* name, const std::string& path);

/// None, with errno, where there is no such directory or it cannot be opened.
sys::DirStream tryOpen(int directory, const char* name);
/// The site of Dir::open()'s errors, for whoever raises them in its place without a frame more.
Site openSite() noexcept;

/// Null at the end; "." and ".." are left out.
const dirent* nextEntry(DIR* directory);
/// Of DT_DIR and its kin.
Dir::EntryType typeOf(unsigned char direntType) noexcept;

/// Of the open file itself.
void setAccessPriv(int fd, const Access& access, const std::string& path);
void setOwnership(int fd, const Access& access, const std::string& path);

}  // namespace kes::fs::at
