"""The layers of the platform library, lowest first. A header includes headers of its own layer or of
lower ones. A name ending in "/" is a folder, "*" any text; a header is in the first line that fits it."""

LAYERS = [
    ("base", ["Export.h", "NoCopy.h", "EnumBitset.h", "thread/Annotations.h"]),
    ("error", ["Backtrace.h", "Helper.h", "Hexdump.h", "ScopeGuard.h", "UnhandledException.h", "error/"]),
    ("atoms", ["proc/Env.h", "fs/Access.h", "time/", "os/*/time/", "signal/Set.h", "signal/Mask.h",
               "signal/ScopedMask.h", "signal/Sender.h", "signal/Names.h", "os/*/signal/", "os/thread/Native.h",
               "os/*/thread/Native.h"]),
    ("sync", ["thread/Lock.h", "thread/Condition.h", "thread/LockGuard.h",
              "os/*/thread/Lock.h", "os/*/thread/Condition.h"]),
    ("state", ["ForkPending.h"]),
    ("threads", ["thread/"]),
    ("signals", ["signal/Handler.h"]),
    ("files: paths", ["fs/Path.h"]),
    ("files: directories", ["fs/Info.h", "fs/Dir.h", "fs/Tree.h"]),
    ("files: operations", ["fs/Ops.h"]),
    ("files: streams", ["fs/File.h", "fs/StreamFile.h", "fs/Lock.h", "fs/Pipe.h", "fs/SaveFile.h"]),
    ("files: standard paths", ["fs/StandardPaths.h"]),
    ("files: copier", ["fs/Copier.h", "fs/TreeCopier.h"]),
    ("users", ["UserInfo.h", "GroupInfo.h", "proc/Privilege.h"]),
    ("processes", ["proc/Child.h", "proc/ExitStatus.h", "proc/Output.h", "proc/StartFailure.h", "proc/Shepherd.h", "proc/Info.h", "os/*/proc/"]),
    ("user interface", ["Locale.h", "gettext.h", "Catalogue.h", "Terminal.h", "EchoGuard.h"]),
    ("runtime", ["kespal.h"]),
]
