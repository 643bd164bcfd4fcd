// Where a mount point really lies.
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_MOUNT_PATH_H
#define QUARRIN_PLATFORM_MOUNT_PATH_H

#include <string>

struct PLATFORM_MOUNT_PATH_S
{
    std::string strLink;     ///< the path itself, when it is a symbolic link; empty otherwise
    std::string strResolved; ///< the directory, as the kernel's table of mounts writes it
};

/// Resolves a mount point, without asking the file system that is mounted there: the card may be gone and answer
/// nothing. False when it ends in "." or "..", a folder above it is missing, or it is somebody else's link.
bool PLATFORM_ResolveMountPath(const std::string &strPath, PLATFORM_MOUNT_PATH_S &stPath);

#endif
