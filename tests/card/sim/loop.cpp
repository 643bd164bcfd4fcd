// Loop devices. See the header.

#include "loop.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

/// One row of the mount table.
struct LOOP_MOUNT_S
{
    std::string strSource;
    std::string strTarget;
};

// DOS partition table: the first entry and the signature in sector 0.
constexpr size_t SECTOR_BYTES = 512;
constexpr size_t ENTRY_TYPE = 450;
constexpr size_t ENTRY_START = 454;
constexpr size_t ENTRY_SECTORS = 458;
constexpr size_t SIGNATURE = 510;
constexpr unsigned char TYPE_GPT = 0xee;

static bool IsOurs(int32_t s32Number)
{
    errno = s32Number >= LOOP_FIRST ? errno : EPERM;
    return s32Number >= LOOP_FIRST;
}

static bool Control(int32_t s32Number, unsigned long ulRequest)
{
    const int s32Control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (s32Control < 0)
    {
        return false;
    }
    const bool bDone = ioctl(s32Control, ulRequest, s32Number) >= 0;
    const int s32Errno = errno;
    close(s32Control);
    errno = s32Errno;
    return bDone;
}

std::string LOOP_Device(int32_t s32Number)
{
    return "/dev/loop" + std::to_string(s32Number);
}

bool LOOP_Add(int32_t s32Number)
{
    return IsOurs(s32Number) && Control(s32Number, LOOP_CTL_ADD);
}

bool LOOP_Remove(int32_t s32Number)
{
    return IsOurs(s32Number) && (Control(s32Number, LOOP_CTL_REMOVE) || errno == ENODEV);
}

bool LOOP_Attach(int32_t s32Number, const std::string &strImage, bool bReadOnly)
{
    if (!IsOurs(s32Number))
    {
        return false;
    }
    const int s32Image = open(strImage.c_str(), (bReadOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    const int s32Device = open(LOOP_Device(s32Number).c_str(), O_RDWR | O_CLOEXEC);
    struct loop_config stConfig = {};
    stConfig.fd = static_cast<uint32_t>(s32Image);
    stConfig.info.lo_flags = static_cast<uint32_t>(LO_FLAGS_PARTSCAN);
    if (bReadOnly)
    {
        stConfig.info.lo_flags |= static_cast<uint32_t>(LO_FLAGS_READ_ONLY);
    }
    const bool bDone = s32Image >= 0 && s32Device >= 0 && ioctl(s32Device, LOOP_CONFIGURE, &stConfig) == 0;
    for (const int s32Fd : {s32Image, s32Device})
    {
        if (s32Fd >= 0)
        {
            close(s32Fd);
        }
    }
    return bDone;
}

void LOOP_Detach(int32_t s32Number)
{
    if (!IsOurs(s32Number))
    {
        return;
    }
    const int s32Device = open(LOOP_Device(s32Number).c_str(), O_RDONLY | O_CLOEXEC);
    if (s32Device >= 0)
    {
        (void)ioctl(s32Device, LOOP_CLR_FD, 0); // fails when nothing is attached
        close(s32Device);
    }
}

std::string LOOP_Image(int32_t s32Number)
{
    std::ifstream file("/sys/block/loop" + std::to_string(s32Number) + "/loop/backing_file");
    std::string strImage;
    std::getline(file, strImage);
    return strImage;
}

bool LOOP_Announce(int32_t s32Number, const char *pszAction)
{
    if (!IsOurs(s32Number))
    {
        return false;
    }
    std::ofstream file("/sys/block/loop" + std::to_string(s32Number) + "/uevent");
    file << pszAction << std::flush;
    return file.good();
}

static uint32_t Word(const unsigned char *pu8Sector, size_t uAt)
{
    uint32_t u32Word = 0;
    memcpy(&u32Word, pu8Sector + uAt, sizeof(u32Word));
    return u32Word;
}

static bool HasDosPartition(const unsigned char *pu8Sector)
{
    return pu8Sector[SIGNATURE] == 0x55 && pu8Sector[SIGNATURE + 1] == 0xaa && pu8Sector[ENTRY_TYPE] != 0 &&
           pu8Sector[ENTRY_TYPE] != TYPE_GPT && Word(pu8Sector, ENTRY_SECTORS) != 0;
}

void LOOP_AddPartition(int32_t s32Number)
{
    const std::string strDevice = LOOP_Device(s32Number);
    if (!IsOurs(s32Number) || access((strDevice + "p1").c_str(), F_OK) == 0)
    {
        return;
    }
    const int s32Device = open(strDevice.c_str(), O_RDONLY | O_CLOEXEC);
    if (s32Device < 0)
    {
        return;
    }
    unsigned char au8Sector[SECTOR_BYTES] = {};
    if (pread(s32Device, au8Sector, SECTOR_BYTES, 0) == static_cast<ssize_t>(SECTOR_BYTES) &&
        HasDosPartition(au8Sector))
    {
        constexpr long long BYTES = static_cast<long long>(SECTOR_BYTES);
        struct blkpg_partition stPartition = {};
        stPartition.start = static_cast<long long>(Word(au8Sector, ENTRY_START)) * BYTES;
        stPartition.length = static_cast<long long>(Word(au8Sector, ENTRY_SECTORS)) * BYTES;
        stPartition.pno = 1;
        struct blkpg_ioctl_arg stArg = {BLKPG_ADD_PARTITION, 0, static_cast<int>(sizeof(stPartition)), &stPartition};
        (void)ioctl(s32Device, BLKPG, &stArg); // a partition that came meanwhile is what is wanted
    }
    close(s32Device);
}

static std::vector<LOOP_MOUNT_S> Mounts()
{
    std::vector<LOOP_MOUNT_S> vecMounts;
    std::ifstream table("/proc/self/mounts");
    std::string strLine;
    while (std::getline(table, strLine))
    {
        std::istringstream words(strLine);
        LOOP_MOUNT_S stMount;
        words >> stMount.strSource >> stMount.strTarget; // our directories have no blanks
        vecMounts.push_back(stMount);
    }
    return vecMounts;
}

static bool IsBelow(const std::string &strPath, const std::string &strDir)
{
    return !strDir.empty() && (strPath == strDir || strPath.rfind(strDir + "/", 0) == 0);
}

static bool IsOf(const LOOP_MOUNT_S &stMount, const std::string &strDevice)
{
    return stMount.strSource == strDevice || stMount.strSource == strDevice + "p1";
}

void LOOP_Unmount(int32_t s32Number, const std::string &strBelow)
{
    const std::vector<LOOP_MOUNT_S> vecMounts = Mounts();
    for (auto it = vecMounts.rbegin(); it != vecMounts.rend(); ++it)
    {
        if ((s32Number >= LOOP_FIRST && IsOf(*it, LOOP_Device(s32Number))) || IsBelow(it->strTarget, strBelow))
        {
            (void)umount2(it->strTarget.c_str(), MNT_DETACH); // gone already, otherwise
        }
    }
}

void LOOP_UnmountAll(const char *pszBegin)
{
    const std::vector<LOOP_MOUNT_S> vecMounts = Mounts();
    for (auto it = vecMounts.rbegin(); it != vecMounts.rend(); ++it)
    {
        if (it->strTarget.rfind(pszBegin, 0) == 0)
        {
            (void)umount2(it->strTarget.c_str(), MNT_DETACH); // gone already, otherwise
        }
    }
}

bool LOOP_IsMounted(int32_t s32Number, std::string &strWhere)
{
    for (const LOOP_MOUNT_S &stMount : Mounts())
    {
        if (IsOf(stMount, LOOP_Device(s32Number)))
        {
            strWhere = stMount.strTarget;
            return true;
        }
    }
    return false;
}

bool LOOP_HasMountBelow(const std::string &strDir)
{
    for (const LOOP_MOUNT_S &stMount : Mounts())
    {
        if (IsBelow(stMount.strTarget, strDir))
        {
            return true;
        }
    }
    return false;
}
