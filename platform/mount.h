// The mount line "mkdir -p X; mount D X".
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_MOUNT_H
#define QUARRIN_PLATFORM_MOUNT_H

#include <cstdint>
#include <string>

/// The line is a mount line: X twice the same path, blanks and all, D a word without a blank. Fills both then, and
/// leaves them untouched otherwise.
bool PLATFORM_IsMountLine(const std::string &strLine, std::string &strDevice, std::string &strPath);

/// What is seen at the path is the file system on this block device, whichever of its names either is given by.
bool PLATFORM_IsMountedOn(const std::string &strDevice, const std::string &strPath);

/// Makes the directory and mounts the device on it, as the line does, but so that nothing on the card is run, is a
/// device or gives anybody's rights away. The exit status of mount.
int32_t PLATFORM_Mount(const std::string &strDevice, const std::string &strPath);

#endif
