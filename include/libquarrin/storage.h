// Storage control (mount, unmount, format) and the device commands below it.
#ifndef LIBQUARRIN_STORAGE_H
#define LIBQUARRIN_STORAGE_H

#include <string>

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Capacity of a mounted file system.
struct tagQN_STORAGE_INFO_S
{
    uint32_t u32TotalKB; ///< total size in KiB, low 32 bits
    uint32_t u32FreeKB;  ///< free size in KiB, blocks kept for the super-user included
    uint32_t u32UsedKB;  ///< total minus free
    double dUsedPercent; ///< used in per cent of total, not rounded; not a number when the total is 0
};

/// Result of QN_StorageMount when the mount command failed: all bits set.
constexpr uint32_t QN_MOUNT_FAILED = 0xffffffffu;

/// Starts a format in the background: one partition over the whole card, a new file system, then a mount.
///
/// A mounted card is unmounted by the host first. QN_GetState tells how it goes: QN_STATE_E_FORMATING, then
/// QN_STATE_E_MOUNTED or, after a failure, QN_STATE_E_PLUGIN. The worker of an earlier format, whose card was pulled,
/// does nothing more once this one has begun.
///
/// \param pHandle   the handle; not checked for null.
/// \param enFsType  file system; any other value lets the format fail after the partition table was rewritten.
///
/// \return 0 started; 3 no card, a format is running, or the card is mounted (each with its own message); 6 out of
///         memory, with nothing changed.
///
/// Threads: any.
/// Locks:   mutexState.
/// Blocks:  while a mount or unmount command runs.
QN_API uint32_t QN_StorageFormat(tagQN_HANDLER_S *pHandle, QN_FS_TYPE_E enFsType);

/// Mounts a card that QN_StorageUnMount has unmounted.
///
/// \return 0 mounted, or mounted already; 1 pHandle is null; 3 wrong state, or a record session is not idle;
///         QN_MOUNT_FAILED the command failed, the state is QN_STATE_E_PLUGIN.
///
/// Threads: any.
/// Locks:   mutexState, mutexRecordList.
/// Blocks:  for the mount command, and while the event queue is full (holding no lock then).
QN_API uint32_t QN_StorageMount(tagQN_HANDLER_S *pHandle);

/// Unmounts the card: every record session must be destroyed and every replay closed before.
///
/// The command removes the mount directory afterwards. It is issued when the library has nothing open below it: a
/// quota check or a listing that is running is waited for, and so are the commands that make folders or move a file
/// aside: as long as they run and the device is there, and two seconds more once it has gone. A file that the host
/// itself holds open there makes umount fail, and the rest of the command then deletes the card's files.
///
/// \return 0 unmounted (the command's own result is not looked at); 1 pHandle is null; 3 not mounted, or sessions open.
///
/// Threads: any.
/// Locks:   mutexState, mutexRecordList, mutexReplayList.
/// Blocks:  for the command, and for a quota check, a listing or another command that is running.
QN_API uint32_t QN_StorageUnMount(tagQN_HANDLER_S *pHandle);

/// Starts the hotplug monitor and looks at the storage for the first time; QN_Init calls it.
///
/// \return 0; a failure of QN_STORAGE_HotplugInit.
///
/// Locks: mutexState.
QN_API int32_t QN_STORAGE_Init(tagQN_HANDLER_S *pHandle);

/// 0 when the path exists, -1 otherwise.
QN_API int32_t QN_STORAGE_CheckBlockDevExist(const char *pszPath);

/// 0 when device and partition node exist; -1 no device; -2 a device but no partition node.
///
/// Here and in all calls below, the node of a partition is the device's name, a "p" and the number (mmcblk1p1). Where
/// the name does not end in a digit and there is no such node but one without the "p" (sda1), it is that one.
QN_API int32_t QN_STORAGE_CheckPartitionExist(const char *pszDevice, int32_t s32PartitionNo);

/// 0 when the mount directory exists, -1 otherwise. The mount table is not looked at.
QN_API int32_t QN_STORAGE_CheckPartitionMounted(const char *pszMountPath);

/// Makes the kernel read the partition table again (BLKRRPART). 1 accepted, 0 refused.
QN_API uint32_t QN_STORAGE_DeviceReAddTable(const std::string &strDevice);

/// Waits, at most about a second, for a partition node that can be opened. Always 1.
QN_API uint32_t QN_STORAGE_DeviceIsAccessible(const std::string &strDevice, const std::string &strPartition);

/// Writes a DOS partition table with one primary partition over the whole device. All data on it is lost.
///
/// \return 0 done; -1 the command failed, or the kernel refused to read the new table.
///
/// Blocks: for fdisk.
QN_API int32_t QN_STORAGE_MakePartitionTable(const char *pszDevice);

/// Makes a file system on a partition; a failing mkfs is tried once more. All data on it is lost.
///
/// \return 0 done; -2 no partition node; -3 unknown file system (no command is run); -4 mkfs failed twice.
///
/// Blocks: for up to a second for the node, and for mkfs.
QN_API int32_t QN_STORAGE_MakePartitionFs(const char *pszDevice, int32_t s32PartitionNo, QN_FS_TYPE_E enFsType);

/// Makes the mount directory and mounts the partition on it. 0 done, -1 the command failed.
QN_API int32_t QN_STORAGE_PartitionMount(const char *pszDevice, int32_t s32PartitionNo, const char *pszMountPath);

/// Unmounts and removes the mount directory with everything below it, also when the unmount failed. 0 done, -1 failed.
QN_API int32_t QN_STORAGE_PartitionUnmount(const char *pszMountPath);

/// Total size in bytes of the file system below a path; 0 when it cannot be queried.
QN_API int64_t QN_STORAGE_GetMountedTotalSize(const char *pszMountPath);

/// Capacity of the file system below a path.
///
/// \param pstInfo  [out] untouched on failure.
///
/// \return 0 done; -1 no such path, or it cannot be queried.
QN_API int32_t QN_STORAGE_GetStorageInfo(const char *pszMountPath, tagQN_STORAGE_INFO_S *pstInfo);

} // namespace libquarrin

#endif
