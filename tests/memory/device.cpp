#include "memory/device.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <vector>

#include "bu_platform.h"
#include "memory/allocations.h"

namespace fs = std::filesystem;

static std::atomic<int64_t> s_s64Now{0};
static std::mutex s_mutex;
static std::string s_strRoot;
static std::vector<std::string> s_vecCommands;

DEVICE_S DEVICE_Make(const std::string &strRoot)
{
    DEVICE_S stDevice;
    stDevice.strRoot = strRoot;
    stDevice.strNode = strRoot + "/device-of-a-camera0";
    stDevice.strMount = strRoot + "/mount-point-of-a-camera";
    stDevice.strFolder = stDevice.strMount + "/folder-of-a-camera";
    std::ofstream(stDevice.strNode).put('n');
    std::ofstream(stDevice.strNode + "p1").put('n');
    stDevice.stParam.strDevice = stDevice.strNode;
    stDevice.stParam.s32PartitionNo = 1;
    stDevice.stParam.pszMountPoint = stDevice.strMount;
    stDevice.stParam.astVolume[0].bEnable = 1;
    stDevice.stParam.astVolume[0].pszFolder = "folder-of-a-camera";
    stDevice.stParam.astVolume[0].u32QuotaType = 1;
    stDevice.stParam.astVolume[0].u32QuotaPercent = 100;
    stDevice.stParam.astVolume[0].bAutoDelete = true;
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_strRoot = strRoot;
    s_vecCommands.clear();
    return stDevice;
}

void DEVICE_SetClock(int64_t s64Seconds)
{
    s_s64Now = s64Seconds;
}

void DEVICE_StepClock(int64_t s64Seconds)
{
    s_s64Now += s64Seconds;
}

int32_t DEVICE_CommandCount(const char *pszBegin)
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    int32_t s32Count = 0;
    for (const std::string &strLine : s_vecCommands)
    {
        s32Count += strLine.rfind(pszBegin, 0) == 0 ? 1 : 0;
    }
    return s32Count;
}

// What stands behind the last blank of a line, when it lies below the device's root.
static std::string PathOf(const std::string &strLine)
{
    const std::string strPath = strLine.substr(strLine.rfind(' ') + 1);
    return strPath.rfind(s_strRoot + "/", 0) == 0 ? strPath : "";
}

// A mount makes the folder, an unmount sets its contents aside: they are the card's. Both below the root alone.
static int32_t Run(const std::string &strLine)
{
    std::error_code error;
    const std::string strPath = PathOf(strLine);
    const std::string strCard = s_strRoot + "/card";
    if (strLine.rfind("umount ", 0) == 0 && !strPath.empty())
    {
        fs::rename(strPath, strCard, error);
    }
    else if (strLine.rfind("mkdir -p ", 0) == 0 && strLine.find("; mount ") != std::string::npos && !strPath.empty())
    {
        fs::rename(strCard, strPath, error);
        fs::create_directories(strPath, error);
        return error ? 1 : 0;
    }
    else if (strLine.rfind("mkdir -p ", 0) == 0 && !strPath.empty())
    {
        fs::create_directories(strPath, error);
        return error ? 1 : 0;
    }
    return 0;
}

extern "C"
{
    int BU_RunCmd(const char *pszLine)
    {
        const ALLOCATIONS_OWNER test(false);
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_vecCommands.emplace_back(pszLine);
        return Run(pszLine);
    }

    int UTIL_LOG_Print(int, const char *, const char *, ...)
    {
        return 0;
    }

    int BSP_PrintLog(int, const char *, ...)
    {
        return 0;
    }

    time_t time(time_t *pTime) noexcept
    {
        const time_t tNow = static_cast<time_t>(s_s64Now.load());
        if (pTime != nullptr)
        {
            *pTime = tNow;
        }
        return tNow;
    }

    // A plain file has no partition table: reading it again is answered here.
    int ioctl(int s32Fd, unsigned long u64Request, ...) noexcept
    {
        using IOCTL = int (*)(int, unsigned long, ...);
        static const IOCTL pfnIoctl =
            reinterpret_cast<IOCTL>(dlsym(RTLD_NEXT, sizeof(time_t) > sizeof(long) ? "__ioctl_time64" : "ioctl"));
        if (u64Request == BLKRRPART)
        {
            return 0;
        }
        va_list args;
        va_start(args, u64Request);
        void *pArg = va_arg(args, void *);
        va_end(args);
        return pfnIoctl(s32Fd, u64Request, pArg);
    }

    // The monitor looks after its end every 200 ms, which is most of what a short life takes.
    int select(int s32Count, fd_set *pstRead, fd_set *pstWrite, fd_set *pstExcept, struct timeval *pstTimeout)
    {
        using SELECT = int (*)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
        static const SELECT pfnSelect =
            reinterpret_cast<SELECT>(dlsym(RTLD_NEXT, sizeof(time_t) > sizeof(long) ? "__select64" : "select"));
        if (pstTimeout != nullptr && pstTimeout->tv_sec == 0)
        {
            pstTimeout->tv_usec = pstTimeout->tv_usec / 40;
        }
        return pfnSelect(s32Count, pstRead, pstWrite, pstExcept, pstTimeout);
    }
}
