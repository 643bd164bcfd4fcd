#include "support/loop_device.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include "support/wait.h"

namespace
{

// The first numbers belong to the machine; the wide range keeps programs that run side by side apart.
constexpr int32_t FIRST_NUMBER = 40;
constexpr int32_t NUMBERS = 4000;

// DOS partition table: the first entry and the signature in sector 0.
constexpr size_t SECTOR_BYTES = 512;
constexpr size_t ENTRY_START = 454;
constexpr size_t ENTRY_SECTORS = 458;
constexpr size_t SIGNATURE = 510;

int32_t PickNumber()
{
    std::random_device random;
    int32_t s32Number = 0;
    do
    {
        s32Number = FIRST_NUMBER + static_cast<int32_t>(random() % NUMBERS);
    } while (access(("/dev/loop" + std::to_string(s32Number)).c_str(), F_OK) == 0);
    return s32Number;
}

uint32_t Word(const unsigned char *pu8Sector, size_t at)
{
    uint32_t u32Word = 0;
    memcpy(&u32Word, pu8Sector + at, sizeof(u32Word));
    return u32Word;
}

} // namespace

LOOP_DEVICE::LOOP_DEVICE() : m_s32Number(PickNumber())
{
    strDevice = "/dev/loop" + std::to_string(m_s32Number);
}

LOOP_DEVICE::~LOOP_DEVICE()
{
    Detach();
    (void)Remove(); // a device that somebody holds stays behind; nothing more can be done here
}

bool LOOP_DEVICE::IsAvailable()
{
    const int32_t s32Control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (s32Control < 0)
    {
        return false;
    }
    close(s32Control);
    return geteuid() == 0;
}

int32_t LOOP_DEVICE::Control(unsigned long u32Request)
{
    const int32_t s32Control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (s32Control < 0)
    {
        return -1;
    }
    const int32_t s32Result = ioctl(s32Control, u32Request, m_s32Number);
    close(s32Control);
    return s32Result;
}

bool LOOP_DEVICE::Add()
{
    m_bAdded = Control(LOOP_CTL_ADD) >= 0;
    return m_bAdded;
}

bool LOOP_DEVICE::Attach(const std::string &strImage, bool bPartScan)
{
    const int32_t s32Image = open(strImage.c_str(), O_RDWR | O_CLOEXEC);
    const int32_t s32Device = open(strDevice.c_str(), O_RDWR | O_CLOEXEC);
    struct loop_config stConfig = {};
    stConfig.fd = static_cast<uint32_t>(s32Image);
    stConfig.info.lo_flags = bPartScan ? static_cast<uint32_t>(LO_FLAGS_PARTSCAN) : 0u;
    m_bAttached = s32Image >= 0 && s32Device >= 0 && ioctl(s32Device, LOOP_CONFIGURE, &stConfig) == 0;
    for (const int32_t s32Fd : {s32Image, s32Device})
    {
        if (s32Fd >= 0)
        {
            close(s32Fd);
        }
    }
    return m_bAttached;
}

bool LOOP_DEVICE::AddFirstPartition()
{
    if (access((strDevice + "p1").c_str(), F_OK) == 0)
    {
        return true; // the kernel has done it
    }
    unsigned char au8Sector[SECTOR_BYTES] = {};
    const int32_t s32Device = open(strDevice.c_str(), O_RDONLY | O_CLOEXEC);
    bool bOk = s32Device >= 0 && pread(s32Device, au8Sector, SECTOR_BYTES, 0) == static_cast<ssize_t>(SECTOR_BYTES) &&
               au8Sector[SIGNATURE] == 0x55 && au8Sector[SIGNATURE + 1] == 0xaa && Word(au8Sector, ENTRY_SECTORS) != 0;
    if (bOk)
    {
        struct blkpg_partition stPartition = {};
        stPartition.start = static_cast<long long>(Word(au8Sector, ENTRY_START)) * static_cast<long long>(SECTOR_BYTES);
        stPartition.length =
            static_cast<long long>(Word(au8Sector, ENTRY_SECTORS)) * static_cast<long long>(SECTOR_BYTES);
        stPartition.pno = 1;
        struct blkpg_ioctl_arg stArg = {};
        stArg.op = BLKPG_ADD_PARTITION;
        stArg.datalen = static_cast<int32_t>(sizeof(stPartition));
        stArg.data = &stPartition;
        bOk = ioctl(s32Device, BLKPG, &stArg) == 0;
    }
    if (s32Device >= 0)
    {
        close(s32Device);
    }
    return bOk;
}

void LOOP_DEVICE::Detach()
{
    if (!m_bAttached)
    {
        return;
    }
    m_bAttached = false;
    std::ifstream mounts("/proc/mounts");
    std::string strLine;
    while (std::getline(mounts, strLine))
    {
        std::istringstream words(strLine);
        std::string strSource;
        std::string strTarget;
        words >> strSource >> strTarget;
        if (strSource == strDevice || strSource == strDevice + "p1")
        {
            umount2(strTarget.c_str(), MNT_DETACH);
        }
    }
    const int32_t s32Device = open(strDevice.c_str(), O_RDONLY | O_CLOEXEC);
    if (s32Device >= 0)
    {
        ioctl(s32Device, LOOP_CLR_FD, 0);
        close(s32Device);
    }
}

bool LOOP_DEVICE::Remove()
{
    if (!m_bAdded)
    {
        return true;
    }
    // The kernel answers "busy" while the last user is just closing it.
    m_bAdded = !TEST_WaitFor([this] { return Control(LOOP_CTL_REMOVE) == 0 || errno == ENODEV; });
    return !m_bAdded;
}

std::string TEST_CardImage(const std::string &strPath)
{
    constexpr uint32_t START_SECTOR = 2048;
    constexpr uint32_t SECTORS = 64u * 1024 * 2 - START_SECTOR;
    std::vector<char> vecSector(SECTOR_BYTES, 0);
    vecSector[ENTRY_START - 4] = static_cast<char>(0x83); // the type: Linux
    memcpy(&vecSector[ENTRY_START], &START_SECTOR, sizeof(START_SECTOR));
    memcpy(&vecSector[ENTRY_SECTORS], &SECTORS, sizeof(SECTORS));
    vecSector[SIGNATURE] = static_cast<char>(0x55);
    vecSector[SIGNATURE + 1] = static_cast<char>(0xaa);
    std::ofstream image(strPath, std::ios::binary);
    image.write(vecSector.data(), static_cast<std::streamsize>(vecSector.size()));
    image.seekp(static_cast<std::streamoff>((START_SECTOR + SECTORS) * SECTOR_BYTES - 1));
    image.put('\0');
    return strPath;
}
