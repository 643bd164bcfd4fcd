// Depth of the stacks: the library's own threads are driven through everything that they do, the host's calls are made
// on threads of their own.

#include "questions.h"

#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "rig.h"
#include "stack.h"

using namespace libquarrin;

namespace
{

constexpr size_t UEVENT_BYTES = 2048; // the longest that the monitor takes
constexpr int32_t SMALL_FILES = 1000;

const QN_FILE_FMT_E CONTAINERS[] = {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV};

void MakeSmallFiles(const std::string &strFolder)
{
    for (int32_t i = 0; i < SMALL_FILES; ++i)
    {
        // Neither in the order of their times nor against it.
        const time_t tBegin = 1600000000 + (i * 7919) % SMALL_FILES * 60;
        const std::string strPath =
            QN_STORAGE_GenerateRecordFile(strFolder.c_str(), "", tBegin, tBegin + 60, "front", "mkv");
        const int s32Fd = open(strPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (s32Fd < 0 || write(s32Fd, "x", 1) != 1)
        {
            RIG_Fail("cannot write " + strPath);
        }
        close(s32Fd);
    }
}

void Announce(tagQN_HANDLER_S *pHandle, int s32Socket, const char *pszAction, QN_STATE_E enAwaited)
{
    std::string strMessage = std::string(pszAction) + "@/devices/platform/sdhci/mmc_host/mmc1/block/" +
                             pHandle->strDevName + std::string(1, '\0');
    strMessage.resize(UEVENT_BYTES, 'x');
    if (send(s32Socket, strMessage.data(), strMessage.size(), 0) < 0)
    {
        RIG_Fail("cannot send a uevent");
    }
    RIG_WaitFor(pszAction, [pHandle, enAwaited] { return pHandle->enState.load() == enAwaited; });
    RIG_Rest(pHandle);
}

// A file of each container is finished on the event thread, as after a split.
void FinishSplits(CARD_S &stCard, tagQN_HANDLER_S *pHandle)
{
    tagQN_RECORD_PARAM_S stParam = RIG_RecordParam(QN_FILE_FMT_E_MKV, true, true);
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    RIG_Expect(QN_RecordInit(pHandle, &stParam, pSession), "QN_RecordInit");
    for (const QN_FILE_FMT_E enFormat : CONTAINERS)
    {
        stParam.enFormat = enFormat;
        auto spEvent = std::make_shared<tagQN_AUTO_SPLIT_EVENT_S>();
        spEvent->pstRecord = pSession;
        spEvent->strFilePath = stCard.strVolume + "/2023-11-14-22-13-20.To.unknown.mkv";
        spEvent->pWriter = FFMUXER_WriteOpen(&stParam, spEvent->strFilePath.c_str());
        spEvent->tStart = 1700000000;
        spEvent->tEnd = spEvent->tStart + 60;
        if (spEvent->pWriter == nullptr)
        {
            RIG_Fail("cannot write " + spEvent->strFilePath);
        }
        (void)FFMUXER_WriteFrame(spEvent->pWriter, stParam.stVideo.stSps.pu8Data, stParam.stVideo.stSps.u32Len, 1, true,
                                 true);                                           // 0 for every writer
        (void)QN_EVENT_PushEvent(pHandle, QN_EVENT_E_RECORD_AUTO_SPLIT, spEvent); // always 0
        RIG_Rest(pHandle);
    }
    RIG_Expect(QN_RecordDestroy(pSession), "QN_RecordDestroy");
}

void AskOwnThreads()
{
    CARD_S stCard(true);
    stCard.stParam.astVolume[QN_VOLUME_ID_E_2].u32QuotaBytes = 100;
    MakeSmallFiles(stCard.strMount + "/event");
    const size_t eventThread = STACK_Count();
    const size_t hotplugThread = eventThread + 1;
    const size_t formatWorker = eventThread + 2;
    tagQN_HANDLER_S *pHandle = RIG_Open(stCard);
    FinishSplits(stCard, pHandle);
    (void)QN_EVENT_PushEvent(pHandle, QN_EVENT_E_QUOTA_UPDATE, std::make_shared<QN_VOLUME_ID_E>(QN_VOLUME_ID_E_2));
    RIG_Rest(pHandle);
    const int s32Socket = RIG_TakeSocket(pHandle);
    Announce(pHandle, s32Socket, "remove", QN_STATE_E_UNPLUGIN);
    Announce(pHandle, s32Socket, "add", QN_STATE_E_MOUNTED);
    RIG_BeginFormat(pHandle);
    RIG_WaitFor("the format", [pHandle] { return pHandle->enState.load() == QN_STATE_E_MOUNTED; });
    RIG_Rest(pHandle);
    if (STACK_Count() != formatWorker + 1)
    {
        RIG_Fail("the threads are not the three that are known");
    }
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
    close(s32Socket);
    RIG_Figure("stack_event_thread", STACK_Used(eventThread));
    RIG_Figure("stack_hotplug_thread", STACK_Used(hotplugThread));
    RIG_Figure("stack_format_worker", STACK_Used(formatWorker));
}

void AskRecording(tagQN_HANDLER_S *pHandle)
{
    int64_t s64Deepest = 0;
    for (const QN_FILE_FMT_E enFormat : CONTAINERS)
    {
        FEED_S stFeed;
        s64Deepest = std::max({s64Deepest, STACK_Of([&] { stFeed = RIG_Record(pHandle, enFormat, true, true); }),
                               STACK_Of([&] { RIG_Feed(stFeed, 500); }), STACK_Of([&] { RIG_Finish(stFeed); })});
    }
    RIG_Figure("stack_host_record", s64Deepest);
}

void Play(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    RIG_Expect(QN_ReplayOpenByFilePath(pHandle, strPath, {}, pReplay), "QN_ReplayOpenByFilePath");
    tagQN_METADATA_S stMetadata = {};
    RIG_Expect(QN_ReplayReadMetadata(pReplay, &stMetadata), "QN_ReplayReadMetadata");
    (void)QN_ReplaySeekTime(pReplay, 5); // not every container of this size can
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = false;
    while (QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo) == 0)
    {
        RIG_Expect(QN_ReplayFreeFrame(pReplay, pu8Data), "QN_ReplayFreeFrame");
    }
    RIG_Expect(static_cast<uint32_t>(QN_ReplayClose(pReplay)), "QN_ReplayClose");
}

void AskReplay(tagQN_HANDLER_S *pHandle, const CARD_S &stCard)
{
    int64_t s64Deepest = 0;
    for (const QN_FILE_FMT_E enFormat : CONTAINERS)
    {
        const std::string strPath = RIG_MakeFile(stCard, enFormat, 10);
        s64Deepest = std::max(s64Deepest, STACK_Of([&] { Play(pHandle, strPath); }));
    }
    RIG_Figure("stack_host_replay", s64Deepest);
}

void AskPhoto(const CARD_S &stCard)
{
    constexpr uint32_t WIDTH = 640;
    constexpr uint32_t HEIGHT = 480;
    const std::vector<uint8_t> vecYuv(WIDTH * HEIGHT * 3 / 2, 128);
    const std::vector<uint8_t> vecRgb(WIDTH * HEIGHT * 3, 128);
    const std::string strPath = stCard.strVolume + "/photo.jpg";
    const int64_t s64Yuv = STACK_Of(
        [&]
        {
            RIG_Expect(static_cast<uint32_t>(FFMUXER_SaveYuvToJpeg(strPath.c_str(), vecYuv.data(), WIDTH, HEIGHT)),
                       "FFMUXER_SaveYuvToJpeg");
        });
    const int64_t s64Rgb = STACK_Of(
        [&]
        {
            RIG_Expect(JPEG_Write(strPath.c_str(), vecRgb.data(), static_cast<uint32_t>(vecRgb.size()),
                                  {WIDTH, HEIGHT, 24, WIDTH * 3, 0, 80}),
                       "JPEG_Write");
        });
    RIG_Figure("stack_host_photo", std::max(s64Yuv, s64Rgb));
}

} // namespace

void ASK_Stack()
{
    STACK_Paint();
    AskOwnThreads();

    RIG_Figure("stack_of_nothing", STACK_Of([] {}));
    CARD_S stCard(true);
    MakeSmallFiles(stCard.strMount + "/event");
    tagQN_HANDLER_S *pHandle = nullptr;
    const int64_t s64Init = STACK_Of([&] { pHandle = RIG_Open(stCard); });
    AskRecording(pHandle);
    AskReplay(pHandle, stCard);
    AskPhoto(stCard);
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    RIG_Figure(
        "stack_host_list",
        STACK_Of([&] { RIG_Expect(QN_ReplayListFile(pHandle, QN_VOLUME_ID_E_2, &vecFiles), "QN_ReplayListFile"); }));
    if (vecFiles.size() != SMALL_FILES)
    {
        RIG_Fail("the listing has not all files");
    }
    RIG_Figure("stack_host_handle",
               std::max(s64Init, STACK_Of([&] { RIG_Expect(QN_Destroy(pHandle), "QN_Destroy"); })));
}
