"""The groups of the reference, and the headers that each holds. A name ending in "/" is a folder, "*" any text; a
header is in the first line that fits it. What a group is for stands in groups.dox."""
import fnmatch

GROUPS = [
    ("errors", ["kespal/error/", "kespal/Backtrace.h", "kespal/ScopeGuard.h", "kespal/UnhandledException.h"]),
    ("threads", ["kespal/thread/", "kespal/os/*/thread/", "kespal/os/thread/"]),
    ("time", ["kespal/time/"]),
    ("signals", ["kespal/signal/", "kespal/os/*/signal/"]),
    ("runtime", ["kespal/kespal.h", "kespal/ForkPending.h"]),
    ("users", ["kespal/UserInfo.h", "kespal/GroupInfo.h", "kespal/proc/Privilege.h"]),
    ("children", ["kespal/proc/", "kespal/os/*/proc/"]),
    ("files", ["kespal/fs/"]),
    ("terminal", ["kespal/Terminal.h", "kespal/EchoGuard.h"]),
    ("locale", ["kespal/Locale.h", "kespal/gettext.h", "kespal/Catalogue.h"]),
    ("helpers", ["kespal/Helper.h", "kespal/Hexdump.h", "kespal/NoCopy.h", "kespal/EnumBitset.h", "kespal/Export.h"]),
    ("kesos_strings", ["kesos/strings.h"]),
    ("kesos_time", ["kesos/time.h"]),
    ("kesos_console", ["kesos/console.h"]),
    ("kesos_threads", ["kesos/threads.h"]),
    ("kesos_mutexes", ["kesos/mutexes.h"]),
    ("kesos_events", ["kesos/events.h"]),
    ("kesos_ipc", ["kesos/ipc.h"]),
    ("kesos_processes", ["kesos/processes.h"]),
    ("kesos_libraries", ["kesos/libraries.h"]),
    ("kesos_files", ["kesos/files.h"]),
    ("kesos_mappings", ["kesos/mappings.h"]),
    ("kesos", ["kesos/"]),
    ("pcaplib", ["pcaplib/"]),
]


def group_of(header):
    """The group of a public header, by the name that it is included by; None if it has none."""
    for group, patterns in GROUPS:
        for pattern in patterns:
            if fnmatch.fnmatchcase(header, pattern + "*" if pattern.endswith("/") else pattern):
                return group
    return None
