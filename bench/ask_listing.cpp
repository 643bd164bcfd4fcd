// A hundred thousand files: what a listing and a quota check of them cost.

#include "questions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <unistd.h>
#include <vector>

#include <fcntl.h>

#include "heap.h"
#include "rig.h"

using namespace libquarrin;

namespace
{

constexpr int32_t FILES = 100000;
constexpr int32_t LINKS = 10000; // of one file; every file system allows that many
constexpr int64_t KIB = 1024;

// Names of one file lie in the folder as files of their own, and take no further room.
void MakeFiles(const std::string &strFolder)
{
    std::string strFirst;
    for (int32_t i = 0; i < FILES; ++i)
    {
        // Neither in the order of their times nor against it.
        const time_t tBegin = 1500000000 + int64_t{i} * 7919 % FILES * 60;
        const std::string strPath =
            QN_STORAGE_GenerateRecordFile(strFolder.c_str(), "", tBegin, tBegin + 60, "front", "mkv");
        if (i % LINKS != 0 && link(strFirst.c_str(), strPath.c_str()) == 0)
        {
            continue;
        }
        strFirst = strPath;
        const int s32Fd = open(strPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (s32Fd < 0 || write(s32Fd, "x", 1) != 1)
        {
            RIG_Fail("cannot write " + strPath);
        }
        close(s32Fd);
    }
}

void List(tagQN_HANDLER_S *pHandle, std::vector<tagQN_FILE_INFO_S> &vecFiles)
{
    RIG_Expect(QN_ReplayListFile(pHandle, QN_VOLUME_ID_E_0, &vecFiles), "QN_ReplayListFile");
    if (vecFiles.size() != FILES)
    {
        RIG_Fail("the listing has not all files");
    }
}

void CheckQuota(tagQN_HANDLER_S *pHandle)
{
    RIG_Expect(static_cast<uint32_t>(QN_STORAGE_QuotaCheck(pHandle, QN_VOLUME_ID_E_0)), "QN_STORAGE_QuotaCheck");
}

// Time that this thread and the kernel for it have worked, in ms.
int64_t WorkMs()
{
    struct timespec stTime = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &stTime);
    return static_cast<int64_t>(stTime.tv_sec) * 1000 + stTime.tv_nsec / 1000000;
}

} // namespace

void ASK_Listing()
{
    CARD_S stCard(true);
    MakeFiles(stCard.strVolume);
    tagQN_HANDLER_S *pHandle = RIG_Open(stCard);
    HEAP_Start();
    {
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        List(pHandle, vecFiles);
        const int64_t s64Held = HEAP_Now().Total();
        RIG_Figure("list_heap", s64Held / KIB);
        RIG_Figure("list_heap_peak", HEAP_Peak() / KIB);
    }
    HEAP_ResetPeak();
    CheckQuota(pHandle);
    RIG_Figure("quota_heap_peak", HEAP_Peak() / KIB);
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
}

void ASK_ListingTime()
{
    CARD_S stCard(true);
    MakeFiles(stCard.strVolume);
    tagQN_HANDLER_S *pHandle = RIG_Open(stCard);
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    List(pHandle, vecFiles); // the kernel knows the folder from now on
    (void)unsetenv("TZ");    // a name that is there
    int64_t s64Begin = WorkMs();
    List(pHandle, vecFiles);
    RIG_Figure("list_time", WorkMs() - s64Begin);
    s64Begin = WorkMs();
    CheckQuota(pHandle);
    RIG_Figure("quota_time", WorkMs() - s64Begin);
    (void)setenv("TZ", "UTC0", 1); // there is room for it
    s64Begin = WorkMs();
    List(pHandle, vecFiles);
    RIG_Figure("list_time_tz", WorkMs() - s64Begin);
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
}
