// Device commands: partition table, file system, mount and unmount, by shell lines of the platform's runner.
// Threads: any; commands block for seconds. Locks: none; one device is one caller's at a time.

#include "libquarrin/storage.h"

#include <cctype>
#include <cstring>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "util/line.h"
#include "util/log.h"
#include "util/pause.h"

namespace libquarrin
{

// The node appears some 100 ms after the table was read; a second is plenty.
constexpr int32_t NODE_TRIES = 10;
constexpr useconds_t NODE_PAUSE_US = 100000;
constexpr useconds_t RETRY_PAUSE_US = 500000;

// Kept: this line number is what the device's log filters know the message by.
constexpr int32_t RETRY_MESSAGE_LINE = 361;

int32_t QN_STORAGE_CheckBlockDevExist(const char *pszPath)
{
    return access(pszPath, F_OK) == 0 ? 0 : -1;
}

// What stands behind the device and a "p" in a node's name, when that is a number; null otherwise.
static const char *NumberOf(const char *pszDevice, const char *pszNode)
{
    const size_t length = strlen(pszDevice);
    if (strncmp(pszNode, pszDevice, length) != 0 || pszNode[length] != 'p')
    {
        return nullptr;
    }
    const char *pszNumber = pszNode + length + 1;
    return pszNumber[0] != '\0' && pszNumber[strspn(pszNumber, "0123456789")] == '\0' ? pszNumber : nullptr;
}

// The kernel puts a "p" before the number only where the name of the disk ends in a digit: mmcblk1p1, but sda1. The
// node of such a disk is the one without it, unless there is one with it. pszNode comes with it.
static const char *PresentNode(UTIL_LINE_S &stPlain, const char *pszDevice, const char *pszNode)
{
    const size_t length = strlen(pszDevice);
    const char *pszNumber = NumberOf(pszDevice, pszNode);
    if (length == 0 || isdigit(static_cast<unsigned char>(pszDevice[length - 1])) != 0 || pszNumber == nullptr ||
        QN_STORAGE_CheckBlockDevExist(pszNode) == 0)
    {
        return pszNode;
    }
    const char *pszPlain = UTIL_LINE_Format(stPlain, "%s%s", pszDevice, pszNumber);
    return pszPlain != nullptr && QN_STORAGE_CheckBlockDevExist(pszPlain) == 0 ? pszPlain : pszNode;
}

/// Room for the name of a partition's node, with and without the "p".
struct tagQN_NODE_S
{
    UTIL_LINE_S stName;
    UTIL_LINE_S stPlain;
};

// Empty when there is no memory for a long one: nothing exists under that name.
static const char *PartitionName(tagQN_NODE_S &stNode, const char *pszDevice, int32_t s32PartitionNo)
{
    const char *pszName = UTIL_LINE_Format(stNode.stName, "%sp%d", pszDevice, s32PartitionNo);
    return pszName == nullptr ? "" : PresentNode(stNode.stPlain, pszDevice, pszName);
}

// Runs a line that was put together; no memory for it is a failure.
static int32_t RunLine(const char *pszLine)
{
    return pszLine == nullptr ? -1 : BU_RunCmd(pszLine);
}

int32_t QN_STORAGE_CheckPartitionExist(const char *pszDevice, int32_t s32PartitionNo)
{
    if (QN_STORAGE_CheckBlockDevExist(pszDevice) != 0)
    {
        return -1;
    }
    tagQN_NODE_S stNode;
    return QN_STORAGE_CheckBlockDevExist(PartitionName(stNode, pszDevice, s32PartitionNo)) == 0 ? 0 : -2;
}

int32_t QN_STORAGE_CheckPartitionMounted(const char *pszMountPath)
{
    return QN_STORAGE_CheckBlockDevExist(pszMountPath); // Kept: the directory counts, not the mount table
}

// A descriptor above 0, since 0 does not count as found: a host that has closed its standard input gets it otherwise.
static int32_t OpenPartition(const char *pszDevice, const char *pszPartition)
{
    UTIL_LINE_S stPlain;
    const char *pszNode = PresentNode(stPlain, pszDevice, pszPartition);
    if (access(pszDevice, F_OK) != 0 || access(pszNode, F_OK) != 0)
    {
        return -1;
    }
    const int32_t s32Fd = open(pszNode, O_RDWR | O_CLOEXEC);
    if (s32Fd != 0)
    {
        return s32Fd;
    }
    const int32_t s32Above = fcntl(s32Fd, F_DUPFD_CLOEXEC, 1);
    close(s32Fd);
    return s32Above;
}

static uint32_t WaitForNode(const char *pszDevice, const char *pszPartition)
{
    for (int32_t i = 0; i < NODE_TRIES; ++i)
    {
        const int32_t s32Fd = OpenPartition(pszDevice, pszPartition);
        if (s32Fd > 0)
        {
            QN_LOG_WARN_AS("QN_STORAGE_DeviceIsAccessible",
                           "open failed"); // Kept: the text says so although the node is there
            close(s32Fd);
            return 1;
        }
        UTIL_Pause(NODE_PAUSE_US);
    }
    QN_TRACE("Partition device %s not found after creation", pszPartition);
    return 1; // Kept: mkfs is tried in any case, and fails with a message of its own
}

uint32_t QN_STORAGE_DeviceIsAccessible(const std::string &strDevice, const std::string &strPartition)
{
    return WaitForNode(strDevice.c_str(), strPartition.c_str());
}

static bool ReadTable(const char *pszDevice)
{
    const int32_t s32Fd = open(pszDevice, O_RDONLY | O_CLOEXEC);
    const bool bRead = ioctl(s32Fd, BLKRRPART) >= 0; // fails for a device that could not be opened
    if (!bRead)
    {
        QN_TRACE("Failed to reread partition table");
    }
    if (s32Fd >= 0)
    {
        close(s32Fd);
    }
    return bRead;
}

uint32_t QN_STORAGE_DeviceReAddTable(const std::string &strDevice)
{
    return ReadTable(strDevice.c_str()) ? 1 : 0;
}

int32_t QN_STORAGE_MakePartitionTable(const char *pszDevice)
{
    // New table, new primary partition 1 over the whole device, write. The shell's echo makes the newlines.
    UTIL_LINE_S stLine;
    if (RunLine(UTIL_LINE_Format(stLine, "echo -e \"o\\nn\\np\\n1\\n\\n\\nw\" | fdisk %s > /dev/console", pszDevice)) !=
        0)
    {
        return -1;
    }
    if (ReadTable(pszDevice))
    {
        return 0;
    }
    QN_LOG_WARN("QN_STORAGE_DeviceReAddTable error!\n"); // Kept: with a newline of its own
    return -1;
}

// The name is looked for each time: the node may have come meanwhile.
static int32_t RunMkfs(const char *pszProgram, const char *pszDevice, int32_t s32PartitionNo)
{
    tagQN_NODE_S stNode;
    UTIL_LINE_S stLine;
    return RunLine(UTIL_LINE_Format(stLine, "%s%s", pszProgram, PartitionName(stNode, pszDevice, s32PartitionNo)));
}

static bool WaitForPartition(const char *pszDevice, int32_t s32PartitionNo)
{
    tagQN_NODE_S stNode;
    return WaitForNode(pszDevice, PartitionName(stNode, pszDevice, s32PartitionNo)) != 0;
}

// A fresh partition's node may come and go while the kernel reads the table: one more try after a pause.
static int32_t RetryMkfs(const char *pszProgram, const char *pszDevice, int32_t s32PartitionNo)
{
    if (!ReadTable(pszDevice))
    {
        QN_TRACE("%s:%d error!\n", "QN_STORAGE_MakePartitionFs", RETRY_MESSAGE_LINE);
    }
    UTIL_Pause(RETRY_PAUSE_US);
    if (!WaitForPartition(pszDevice, s32PartitionNo))
    {
        return -2;
    }
    return RunMkfs(pszProgram, pszDevice, s32PartitionNo) == 0 ? 0 : -4;
}

int32_t QN_STORAGE_MakePartitionFs(const char *pszDevice, int32_t s32PartitionNo, QN_FS_TYPE_E enFsType)
{
    if (!WaitForPartition(pszDevice, s32PartitionNo))
    {
        return -2;
    }
    const char *pszProgram = nullptr;
    switch (enFsType)
    {
    case QN_FS_TYPE_E_EXT4:
        pszProgram = "mkfs.ext4 -F ";
        break;
    case QN_FS_TYPE_E_VFAT:
        pszProgram = "mkfs.vfat ";
        break;
    default:
        return -3;
    }
    if (RunMkfs(pszProgram, pszDevice, s32PartitionNo) == 0)
    {
        return 0;
    }
    return RetryMkfs(pszProgram, pszDevice, s32PartitionNo);
}

int32_t QN_STORAGE_PartitionMount(const char *pszDevice, int32_t s32PartitionNo, const char *pszMountPath)
{
    tagQN_NODE_S stNode;
    UTIL_LINE_S stLine;
    return RunLine(UTIL_LINE_Format(stLine, "mkdir -p %s; mount %s %s", pszMountPath,
                                    PartitionName(stNode, pszDevice, s32PartitionNo), pszMountPath)) == 0
               ? 0
               : -1;
}

int32_t QN_STORAGE_PartitionUnmount(const char *pszMountPath)
{
    // Kept: the second command runs whatever the first did. Callers have nothing open below the path.
    UTIL_LINE_S stLine;
    return RunLine(UTIL_LINE_Format(stLine, "umount %s; rm -rf %s", pszMountPath, pszMountPath)) == 0 ? 0 : -1;
}

} // namespace libquarrin
