// Capacity of a mounted file system.
// Threads: any. Locks: none.

#include "libquarrin/storage.h"

#include <cstdio>

#include <sys/statvfs.h>
#include <unistd.h>

namespace libquarrin
{

constexpr uint32_t KIB_SHIFT = 10;

int64_t QN_STORAGE_GetMountedTotalSize(const char *pszMountPath)
{
    struct statvfs stVfs = {};
    if (statvfs(pszMountPath, &stVfs) != 0)
    {
        return 0;
    }
    // Widened before the product: both words have 32 bits on the device.
    return static_cast<int64_t>(static_cast<uint64_t>(stVfs.f_blocks) * static_cast<uint64_t>(stVfs.f_bsize));
}

int32_t QN_STORAGE_GetStorageInfo(const char *pszMountPath, tagQN_STORAGE_INFO_S *pstInfo)
{
    if (access(pszMountPath, F_OK) != 0)
    {
        return -1;
    }
    struct statvfs stVfs = {};
    if (statvfs(pszMountPath, &stVfs) != 0)
    {
        perror("statvfs failed");
        return -1;
    }
    const uint64_t u64BlockSize = stVfs.f_bsize;
    pstInfo->u32TotalKB = static_cast<uint32_t>((stVfs.f_blocks * u64BlockSize) >> KIB_SHIFT);
    pstInfo->u32FreeKB = static_cast<uint32_t>((stVfs.f_bfree * u64BlockSize) >> KIB_SHIFT);
    pstInfo->u32UsedKB = pstInfo->u32TotalKB - pstInfo->u32FreeKB;
    pstInfo->dUsedPercent = static_cast<double>(pstInfo->u32UsedKB) * 100.0 / static_cast<double>(pstInfo->u32TotalKB);
    return 0;
}

} // namespace libquarrin
