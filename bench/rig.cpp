// The card, the utility layer and the streams. See the header.

#include "rig.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "quarrin_platform.h"
#include "support/scratch.h"

using namespace libquarrin;

namespace
{

int g_s32Figures = STDOUT_FILENO; // where figures go
int g_s32Errors = STDERR_FILENO;
std::set<std::string> *g_pFolders = new std::set<std::string>(); // of the cards that there are
std::atomic<bool> g_bHoldFormat{false};

constexpr useconds_t POLL_US = 5000;
constexpr int32_t POLLS = 12000;

// Baseline, 320 x 240; each unit behind a four-byte start code.
const std::vector<uint8_t> SPS = {0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x41, 0xfb, 0x01, 0x10,
                                  0, 0, 3, 0, 0x10, 0,    0,    3,    3,    0x20, 0xf1, 0x42, 0xa4, 0x80};
const std::vector<uint8_t> PPS = {0, 0, 0, 1, 0x68, 0xcb, 0x83, 0xcb, 0x20};
const std::vector<uint8_t> GREY_PICTURE = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x0b, 0xf2, 0x62, 0x80, 0x01, 0x99};
const std::vector<uint8_t> SAME_AGAIN = {0, 0, 0, 1, 0x41, 0x9a, 0x38, 0x17, 0xe0, 0x12, 0xd8};
const std::vector<uint8_t> FILLER = {0, 0, 0, 1, 0x0c};
// AAC LC, 48 kHz, stereo: silence behind its ADTS header.
const std::vector<uint8_t> SILENCE = {0xff, 0xf1, 0x4c, 0x80, 0x01, 0xbf, 0xfc, 0x21, 0x10, 0x04, 0x60, 0x8c, 0x1c};

constexpr uint64_t KEY_EVERY = 25;
constexpr uint64_t VIDEO_MS = 40;
constexpr uint64_t AAC_SAMPLES = 1024;
constexpr uint64_t AAC_RATE = 48000;

void Append(std::vector<uint8_t> &vecTo, const std::vector<uint8_t> &vecPart)
{
    vecTo.insert(vecTo.end(), vecPart.begin(), vecPart.end());
}

std::vector<uint8_t> VideoFrame(bool bKey, uint32_t u32Bytes)
{
    std::vector<uint8_t> vecFrame;
    if (bKey)
    {
        Append(vecFrame, SPS);
        Append(vecFrame, PPS);
        Append(vecFrame, GREY_PICTURE);
    }
    else
    {
        Append(vecFrame, SAME_AGAIN);
    }
    if (vecFrame.size() + FILLER.size() + 1 < u32Bytes)
    {
        Append(vecFrame, FILLER);
        vecFrame.resize(u32Bytes - 1, 0xff);
        vecFrame.push_back(0x80);
    }
    return vecFrame;
}

uint64_t AudioMs(uint64_t u64Frame)
{
    return u64Frame * AAC_SAMPLES * 1000 / AAC_RATE;
}

void FeedAudio(FEED_S &stFeed)
{
    // The library borrows the bytes and does not write into them.
    unsigned char *pu8Data = const_cast<uint8_t *>(SILENCE.data());
    RIG_Expect(QN_RecordWriteFrame(stFeed.pSession, pu8Data, static_cast<uint32_t>(SILENCE.size()),
                                   1 + AudioMs(stFeed.u64Audio), 1, 0),
               "QN_RecordWriteFrame");
    ++stFeed.u64Audio;
}

void FeedVideo(FEED_S &stFeed, std::vector<uint8_t> &vecFrame, bool bKey)
{
    RIG_Expect(QN_RecordWriteFrame(stFeed.pSession, vecFrame.data(), static_cast<uint32_t>(vecFrame.size()),
                                   1 + stFeed.u64Video * VIDEO_MS, bKey ? 1 : 0, 1),
               "QN_RecordWriteFrame");
    ++stFeed.u64Video;
}

void Touch(const std::string &strPath)
{
    const int s32Fd = open(strPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (s32Fd < 0)
    {
        RIG_Fail("cannot make " + strPath);
    }
    close(s32Fd);
}

} // namespace

// ---- the utility layer: that of an ordinary Linux, with the commands that would touch devices taken out

extern "C" int BU_RunCmd(const char *pszCommand)
{
    std::string strCommand = pszCommand;
    while (g_bHoldFormat && strCommand.find("mkfs") != std::string::npos)
    {
        usleep(POLL_US);
    }
    const size_t mount = strCommand.find("; mount ");
    if (mount != std::string::npos)
    {
        strCommand.replace(mount, 8, "; true ");
    }
    if (strCommand.find("fdisk") != std::string::npos || strCommand.rfind("mkfs", 0) == 0)
    {
        strCommand = "true";
    }
    // An unmount line never reaches a shell, and a folder that is no mount point is left alone.
    (void)QN_PLATFORM_RunCommand(strCommand.c_str());
    return 0;
}

// A plain file has no partition table to be read anew.
extern "C" int ioctl(int s32Fd, unsigned long u64Request, ...) noexcept
{
    using IOCTL = int (*)(int, unsigned long, ...);
    static const IOCTL pfnIoctl = reinterpret_cast<IOCTL>(dlsym(RTLD_NEXT, "ioctl"));
    va_list args;
    va_start(args, u64Request);
    void *pArg = u64Request == BLKRRPART ? nullptr : va_arg(args, void *);
    va_end(args);
    return u64Request == BLKRRPART ? 0 : pfnIoctl(s32Fd, u64Request, pArg);
}

// ---- words

void RIG_Fail(const std::string &strWhy)
{
    (void)dprintf(g_s32Errors, "footprint: %s\n", strWhy.c_str());
    for (const std::string &strFolder : *g_pFolders)
    {
        (void)TEST_RemoveScratch(strFolder); // what stays is of no harm
    }
    _exit(1); // threads may be anywhere
}

void RIG_Expect(uint32_t u32Result, const char *pszCall)
{
    if (u32Result != 0)
    {
        RIG_Fail(std::string(pszCall) + " gave " + std::to_string(u32Result));
    }
}

void RIG_Figure(const std::string &strName, int64_t s64Value)
{
    (void)dprintf(g_s32Figures, "%s %lld\n", strName.c_str(), static_cast<long long>(s64Value));
}

void RIG_Figure(const std::string &strName, double dValue)
{
    (void)dprintf(g_s32Figures, "%s %.1f\n", strName.c_str(), dValue);
}

void RIG_Silence()
{
    g_s32Figures = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    g_s32Errors = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int s32Null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (g_s32Figures < 0 || g_s32Errors < 0 || s32Null < 0)
    {
        RIG_Fail("cannot open /dev/null");
    }
    (void)dup2(s32Null, STDOUT_FILENO); // the descriptors are there
    (void)dup2(s32Null, STDERR_FILENO);
    close(s32Null);
}

void RIG_WaitFor(const char *pszWhat, const std::function<bool()> &fnCondition)
{
    for (int32_t i = 0; !fnCondition(); ++i)
    {
        if (i == POLLS)
        {
            RIG_Fail(std::string("waited in vain for ") + pszWhat);
        }
        usleep(POLL_US);
    }
}

void RIG_HoldFormat(bool bHold)
{
    g_bHoldFormat = bHold;
}

// ---- the card

CARD_S::CARD_S(bool bIn)
{
    strFolder = TEST_MakeScratch("footprint");
    if (strFolder.empty())
    {
        RIG_Fail("cannot make a folder in " + TEST_ScratchBase());
    }
    g_pFolders->insert(strFolder);
    strMount = strFolder + "/mnt";
    strVolume = strMount + "/rec";
    // A name of this process's own, so that the machine's uevents cannot name it.
    stParam.strDevice = strFolder + "/qnfoot" + std::to_string(getpid());
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = strMount;
    const char *apszVolumes[QN_VOLUME_COUNT] = {"rec", "photo", "event"};
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        stParam.astVolume[i].bEnable = 1;
        stParam.astVolume[i].pszFolder = apszVolumes[i];
        stParam.astVolume[i].u32QuotaBytes = UINT32_MAX;
        stParam.astVolume[i].bAutoDelete = true;
    }
    if (bIn)
    {
        Touch(stParam.strDevice);
        Touch(stParam.strDevice + "p1");
        for (const char *pszVolume : apszVolumes)
        {
            std::filesystem::create_directories(strMount + "/" + pszVolume);
        }
    }
}

CARD_S::~CARD_S()
{
    (void)TEST_RemoveScratch(strFolder); // what stays is of no harm
    g_pFolders->erase(strFolder);
}

tagQN_HANDLER_S *RIG_Open(CARD_S &stCard)
{
    tagQN_HANDLER_S *pHandle = nullptr;
    RIG_Expect(QN_Init(&stCard.stParam, pHandle), "QN_Init");
    RIG_Rest(pHandle);
    const bool bIn = std::filesystem::exists(stCard.strMount);
    if (pHandle->enState.load() != (bIn ? QN_STATE_E_MOUNTED : QN_STATE_E_UNPLUGIN))
    {
        RIG_Fail("the handle is not in the state that the card is in");
    }
    RIG_WaitFor("the hotplug socket", [pHandle] { return pHandle->s32NetlinkFd >= 0; });
    return pHandle;
}

void RIG_BeginFormat(tagQN_HANDLER_S *pHandle)
{
    RIG_Expect(QN_StorageUnMount(pHandle), "QN_StorageUnMount");
    RIG_Expect(QN_StorageFormat(pHandle, QN_FS_TYPE_E_EXT4), "QN_StorageFormat");
}

void RIG_Rest(tagQN_HANDLER_S *pHandle)
{
    // In order: once an event that does nothing has been taken out, all before it are done.
    constexpr QN_EVENT_E NOTHING = static_cast<QN_EVENT_E>(5);
    (void)QN_EVENT_PushEvent(pHandle, NOTHING, nullptr); // always 0
    (void)QN_EVENT_PushEvent(pHandle, NOTHING, nullptr);
    RIG_WaitFor("the event thread",
                [pHandle]
                {
                    pthread_mutex_lock(&pHandle->mutexEvent);
                    const bool bEmpty = pHandle->u32EventCount == 0;
                    pthread_mutex_unlock(&pHandle->mutexEvent);
                    return bEmpty;
                });
}

int RIG_TakeSocket(tagQN_HANDLER_S *pHandle)
{
    int as32Ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, as32Ends) != 0 ||
        dup2(as32Ends[1], pHandle->s32NetlinkFd) < 0 || fcntl(pHandle->s32NetlinkFd, F_SETFL, O_NONBLOCK) != 0)
    {
        RIG_Fail("cannot stand in for the kernel");
    }
    close(as32Ends[1]);
    return as32Ends[0];
}

// ---- streams

tagQN_RECORD_PARAM_S RIG_RecordParam(QN_FILE_FMT_E enFormat, bool bVideo, bool bAudio)
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = enFormat;
    if (bVideo)
    {
        stParam.stVideo = {1, QN_CODEC_H264, 320, 240, 25, 4000000, {}, {}, 1, 1000};
        stParam.stVideo.stSps = {const_cast<uint8_t *>(SPS.data()), static_cast<uint32_t>(SPS.size())};
        stParam.stVideo.stPps = {const_cast<uint8_t *>(PPS.data()), static_cast<uint32_t>(PPS.size())};
    }
    if (bAudio)
    {
        stParam.stAudio = {1, QN_CODEC_AAC, AAC_RATE, 0, 2, 0, {}, {}, 1, 1000};
    }
    return stParam;
}

FEED_S RIG_Record(tagQN_HANDLER_S *pHandle, QN_FILE_FMT_E enFormat, bool bVideo, bool bAudio)
{
    FEED_S stFeed;
    stFeed.bVideo = bVideo;
    stFeed.bAudio = bAudio;
    tagQN_RECORD_PARAM_S stParam = RIG_RecordParam(enFormat, bVideo, bAudio);
    RIG_Expect(QN_RecordInit(pHandle, &stParam, stFeed.pSession), "QN_RecordInit");
    RIG_Expect(QN_RecordStart(stFeed.pSession, "front"), "QN_RecordStart");
    return stFeed;
}

void RIG_Feed(FEED_S &stFeed, int32_t s32Frames)
{
    std::vector<uint8_t> vecKey = VideoFrame(true, stFeed.u32FrameBytes);
    std::vector<uint8_t> vecOther = VideoFrame(false, stFeed.u32FrameBytes);
    for (int32_t i = 0; i < s32Frames; ++i)
    {
        if (!stFeed.bVideo)
        {
            FeedAudio(stFeed);
            continue;
        }
        const bool bKey = stFeed.u64Video % KEY_EVERY == 0;
        FeedVideo(stFeed, bKey ? vecKey : vecOther, bKey);
        while (stFeed.bAudio && AudioMs(stFeed.u64Audio) < stFeed.u64Video * VIDEO_MS)
        {
            FeedAudio(stFeed);
        }
    }
}

void RIG_Finish(FEED_S &stFeed)
{
    RIG_Expect(QN_RecordStop(stFeed.pSession), "QN_RecordStop");
    RIG_Expect(QN_RecordDestroy(stFeed.pSession), "QN_RecordDestroy");
}

std::string RIG_MakeFile(const CARD_S &stCard, QN_FILE_FMT_E enFormat, int32_t s32Seconds)
{
    constexpr time_t BEGIN = 1700000000;
    const std::string strPath = QN_STORAGE_GenerateRecordFile(stCard.strMount.c_str(), "rec", BEGIN, BEGIN + s32Seconds,
                                                              nullptr, QN_STORAGE_FmtType2FileExt(enFormat));
    tagQN_RECORD_PARAM_S stParam = RIG_RecordParam(enFormat, true, false);
    void *pWriter = FFMUXER_WriteOpen(&stParam, strPath.c_str());
    if (pWriter == nullptr)
    {
        RIG_Fail("cannot write " + strPath);
    }
    for (uint64_t i = 0; i < static_cast<uint64_t>(s32Seconds) * KEY_EVERY; ++i)
    {
        const std::vector<uint8_t> vecFrame = VideoFrame(i % KEY_EVERY == 0, 2000);
        (void)FFMUXER_WriteFrame(pWriter, vecFrame.data(), static_cast<uint32_t>(vecFrame.size()), 1 + i * VIDEO_MS,
                                 i % KEY_EVERY == 0, true); // 0 for every writer
    }
    (void)FFMUXER_WriteClose(pWriter); // the same
    return strPath;
}
