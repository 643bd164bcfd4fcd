// What the device's utility layer gives to libquarrin: a shell runner and two loggers.
//
// The three functions are undefined in libquarrin.so; the host process provides them with C linkage. A host without a
// utility layer of its own links libquarrin_platform, which implements them for an ordinary Linux system.
#ifndef BU_PLATFORM_H
#define BU_PLATFORM_H

#include <cstdint>

#include "libquarrin/export.h"

/// Boolean of the utility layer: 0 is false, anything else is true.
typedef int32_t tagBU_BOOL;

extern "C"
{

    /// Runs one shell command line and waits for it.
    ///
    /// The library's lines need a shell whose `echo` understands `-e` (bash, busybox).
    ///
    /// \param cmd  NUL-terminated command line; borrowed for the call.
    ///
    /// \return 0 when the command succeeded, anything else when it failed.
    ///
    /// Threads: called from host threads, the event thread and the format worker, also at the same time.
    /// Blocks:  as long as the command runs.
    int BU_RunCmd(const char *cmd);

    /// Writes one line to the levelled log.
    ///
    /// \param level   3 error, 4 warning, 6 information.
    /// \param prefix  finished text "FUNCTION[LINE] "; borrowed for the call.
    /// \param format  printf format of the message; no newline is expected at its end.
    ///
    /// \return not looked at by the library.
    ///
    /// Threads: any.
    int UTIL_LOG_Print(int level, const char *prefix, const char *format, ...);

    /// Prints one line as it stands; the thread utility reports through it.
    ///
    /// \param level   as of UTIL_LOG_Print.
    /// \param format  printf format, with its own newline.
    ///
    /// \return not looked at by the library.
    ///
    /// Threads: any.
    int BSP_PrintLog(int level, const char *format, ...);

} // extern "C"

#endif
