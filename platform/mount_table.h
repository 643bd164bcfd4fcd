// The kernel's table of mounts, in the form of /proc/self/mountinfo.
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_MOUNT_TABLE_H
#define QUARRIN_PLATFORM_MOUNT_TABLE_H

#include <string>

#include <sys/types.h>

/// The table as it is now; empty when it cannot be read, which is logged.
std::string PLATFORM_ReadMountTable();

/// The path stands in the fifth column.
bool PLATFORM_TableHasMount(const std::string &strTable, const std::string &strPath);

/// What is seen at the path is the file system of this block device: of the rows with this path, the last one counts.
bool PLATFORM_TableShowsDevice(const std::string &strTable, const std::string &strPath, dev_t device);

/// The source of what is seen at the path: the node of a device, as a rule. Empty when nothing is mounted there.
std::string PLATFORM_TableSource(const std::string &strTable, const std::string &strPath);

#endif
