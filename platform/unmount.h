// The unmount line "umount X; rm -rf X", done without a shell and without the danger in it.
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_UNMOUNT_H
#define QUARRIN_PLATFORM_UNMOUNT_H

#include <cstdint>
#include <string>

enum PLATFORM_LINE_E : int32_t
{
    PLATFORM_LINE_ORDINARY = 0,  ///< for the shell
    PLATFORM_LINE_UNMOUNT = 1,   ///< "umount X; rm -rf X" with one X
    PLATFORM_LINE_DANGEROUS = 2, ///< begins with umount, goes on to an rm, but is not that line
};

/// Says what a command line is; strPath is X of an unmount line and untouched otherwise.
PLATFORM_LINE_E PLATFORM_ClassifyLine(const std::string &strLine, std::string &strPath);

/// Takes one mount off the path, and its directory when that leaves it an empty ordinary one; of a path that is a link,
/// off the directory behind it, and then the link too. 0: nothing stands at the path any more; else 1. Says why.
int32_t PLATFORM_Unmount(const std::string &strPath);

#endif
