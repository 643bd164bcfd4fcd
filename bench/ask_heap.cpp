// Heap of handles, recordings and replays: of each kind one is made first that is not measured, so that what libraries
// set up once does not count.

#include "questions.h"

#include <string>
#include <unistd.h>

#include "heap.h"
#include "rig.h"

using namespace libquarrin;

namespace
{

struct CONTAINER_S
{
    QN_FILE_FMT_E enFormat;
    const char *pszName;
};

const CONTAINER_S CONTAINERS[] = {{QN_FILE_FMT_E_MKV, "mkv"}, {QN_FILE_FMT_E_TS, "ts"}, {QN_FILE_FMT_E_MP4, "mp4"}};

constexpr int64_t KIB = 1024;
constexpr int32_t FRAMES_PER_MINUTE = 60 * 25;
constexpr uint32_t FRAME_BYTES = 20000; // 4 Mbit/s at 25 frames a second

void AskHandle(CARD_S &stCard, CARD_S &stOther)
{
    const HEAP_S stNone = HEAP_Now();
    tagQN_HANDLER_S *pFirst = RIG_Open(stCard);
    const int64_t s64First = HEAP_Since(stNone).Total(); // before the figure's name takes room too
    RIG_Figure("handle_heap", s64First);
    const HEAP_S stOne = HEAP_Now();
    tagQN_HANDLER_S *pSecond = RIG_Open(stOther);
    const int64_t s64Second = HEAP_Since(stOne).Total();
    RIG_Figure("handle_heap_further", s64Second);
    RIG_Expect(QN_Destroy(pSecond), "QN_Destroy");
    RIG_Expect(QN_Destroy(pFirst), "QN_Destroy");
    const int64_t s64Left = HEAP_Since(stNone).s64Library;
    RIG_Figure("handle_heap_left", s64Left);
}

void AskSession(tagQN_HANDLER_S *pHandle)
{
    tagQN_RECORD_PARAM_S stParam = RIG_RecordParam(QN_FILE_FMT_E_MKV, true, true);
    const HEAP_S stBefore = HEAP_Now();
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    RIG_Expect(QN_RecordInit(pHandle, &stParam, pSession), "QN_RecordInit");
    const int64_t s64Session = HEAP_Since(stBefore).Total();
    RIG_Figure("session_heap", s64Session);
    RIG_Expect(QN_RecordDestroy(pSession), "QN_RecordDestroy");
}

void WarmUp(tagQN_HANDLER_S *pHandle, QN_FILE_FMT_E enFormat)
{
    FEED_S stFeed = RIG_Record(pHandle, enFormat, true, true);
    RIG_Feed(stFeed, FRAMES_PER_MINUTE);
    RIG_Finish(stFeed);
    RIG_Rest(pHandle);
}

// What a file holds when a second of it is written, and the most that the first minute holds.
void AskRecording(tagQN_HANDLER_S *pHandle, const CONTAINER_S &stContainer)
{
    const std::string strName = stContainer.pszName;
    WarmUp(pHandle, stContainer.enFormat);
    const HEAP_S stBefore = HEAP_Now();
    HEAP_ResetPeak();
    FEED_S stFeed = RIG_Record(pHandle, stContainer.enFormat, true, true);
    stFeed.u32FrameBytes = FRAME_BYTES;
    RIG_Feed(stFeed, 25);
    const HEAP_S stHeld = HEAP_Since(stBefore);
    RIG_Feed(stFeed, FRAMES_PER_MINUTE - 25);
    RIG_Figure("recording_library_" + strName, stHeld.s64Library);
    RIG_Figure("recording_ffmpeg_" + strName, stHeld.s64Others / KIB);
    RIG_Figure("recording_peak_" + strName, (HEAP_Peak() - stBefore.Total()) / KIB);
    RIG_Finish(stFeed);
}

constexpr int32_t SETTLING = 1000;
constexpr int32_t COUNTED = 10000;

void AskFrames(tagQN_HANDLER_S *pHandle, const CONTAINER_S &stContainer, bool bVideo)
{
    const std::string strName = std::string("frame_heap_") + (bVideo ? "video_" : "audio_") + stContainer.pszName;
    FEED_S stFeed = RIG_Record(pHandle, stContainer.enFormat, bVideo, !bVideo);
    RIG_Feed(stFeed, SETTLING);
    const HEAP_S stBefore = HEAP_Now();
    RIG_Feed(stFeed, COUNTED);
    RIG_Figure(strName, static_cast<double>(HEAP_Since(stBefore).Total()) / COUNTED);
    RIG_Finish(stFeed);
}

// A file of many frames is split off, another one stopped; afterwards as much is held as before. The event that told of
// the split stays in its slot of the ring until a later one takes it.
void AskLeft(tagQN_HANDLER_S *pHandle)
{
    tagQN_RECORD_PARAM_S stParam = RIG_RecordParam(QN_FILE_FMT_E_MKV, true, true);
    stParam.bAutoSplit = 1;
    stParam.u32SplitSeconds = 1;
    FEED_S stFeed;
    stFeed.bAudio = true;
    std::string strOld(200, '/'); // room for any path of this test
    RIG_Expect(QN_RecordInit(pHandle, &stParam, stFeed.pSession), "QN_RecordInit");
    RIG_Expect(QN_RecordStart(stFeed.pSession, "front"), "QN_RecordStart");
    RIG_Feed(stFeed, 25);
    const HEAP_S stFirst = HEAP_Now();
    RIG_Feed(stFeed, 200 * 25 - 25);
    usleep(1100000); // the split is due; it comes with the next frame, a key frame
    strOld = stFeed.pSession->strFilePath;
    RIG_Feed(stFeed, 25);
    if (stFeed.pSession->strFilePath == strOld)
    {
        RIG_Fail("no file was split off");
    }
    RIG_Rest(pHandle);
    RIG_WaitFor("the file that was split off", [&strOld] { return access(strOld.c_str(), F_OK) != 0; });
    RIG_Rest(pHandle);
    const int64_t s64Split = HEAP_Since(stFirst).Total();
    RIG_Figure("left_after_split", s64Split);
    RIG_Expect(QN_RecordStop(stFeed.pSession), "QN_RecordStop");
    RIG_Rest(pHandle);

    const HEAP_S stIdle = HEAP_Now();
    RIG_Expect(QN_RecordStart(stFeed.pSession, "front"), "QN_RecordStart");
    RIG_Feed(stFeed, 100 * 25);
    RIG_Expect(QN_RecordStop(stFeed.pSession), "QN_RecordStop");
    RIG_Rest(pHandle);
    const int64_t s64Stop = HEAP_Since(stIdle).Total();
    RIG_Figure("left_after_stop", s64Stop);
    RIG_Expect(QN_RecordDestroy(stFeed.pSession), "QN_RecordDestroy");
}

tagQN_REPLAY_HANDLER_S *OpenReplay(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    RIG_Expect(QN_ReplayOpenByFilePath(pHandle, strPath, {}, pReplay), "QN_ReplayOpenByFilePath");
    return pReplay;
}

void ReadFrames(tagQN_REPLAY_HANDLER_S *pReplay, int32_t s32Frames)
{
    for (int32_t i = 0; i < s32Frames; ++i)
    {
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        RIG_Expect(QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo), "QN_ReplayReadFrame");
        RIG_Expect(QN_ReplayFreeFrame(pReplay, pu8Data), "QN_ReplayFreeFrame");
    }
}

void AskReplay(tagQN_HANDLER_S *pHandle, const std::string &strPath, const std::string &strName)
{
    const HEAP_S stBefore = HEAP_Now();
    HEAP_ResetPeak();
    tagQN_REPLAY_HANDLER_S *pReplay = OpenReplay(pHandle, strPath);
    ReadFrames(pReplay, 500);
    const HEAP_S stHeld = HEAP_Since(stBefore);
    RIG_Figure("replay_library_" + strName, stHeld.s64Library);
    RIG_Figure("replay_ffmpeg_" + strName, stHeld.s64Others / KIB);
    RIG_Figure("replay_peak_" + strName, (HEAP_Peak() - stBefore.Total()) / KIB);
    RIG_Expect(static_cast<uint32_t>(QN_ReplayClose(pReplay)), "QN_ReplayClose");
}

} // namespace

void ASK_Record()
{
    CARD_S stCard(true);
    CARD_S stOther(true);
    HEAP_Start();
    AskHandle(stCard, stOther);
    tagQN_HANDLER_S *pHandle = RIG_Open(stCard);
    AskSession(pHandle);
    for (const CONTAINER_S &stContainer : CONTAINERS)
    {
        AskRecording(pHandle, stContainer);
    }
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
}

void ASK_Frames()
{
    CARD_S stCard(true);
    HEAP_Start();
    tagQN_HANDLER_S *pHandle = RIG_Open(stCard);
    for (const CONTAINER_S &stContainer : CONTAINERS)
    {
        WarmUp(pHandle, stContainer.enFormat);
        AskFrames(pHandle, stContainer, true);
        AskFrames(pHandle, stContainer, false);
    }
    AskLeft(pHandle);
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
}

void ASK_Replay()
{
    CARD_S stCard(true);
    HEAP_Start();
    tagQN_HANDLER_S *pHandle = RIG_Open(stCard);
    for (const CONTAINER_S &stContainer : CONTAINERS)
    {
        const std::string strPath = RIG_MakeFile(stCard, stContainer.enFormat, 60);
        tagQN_REPLAY_HANDLER_S *pReplay = OpenReplay(pHandle, strPath);
        ReadFrames(pReplay, 1);
        RIG_Expect(static_cast<uint32_t>(QN_ReplayClose(pReplay)), "QN_ReplayClose");
        const HEAP_S stBefore = HEAP_Now();
        AskReplay(pHandle, strPath, stContainer.pszName);
        if (stContainer.enFormat == QN_FILE_FMT_E_MKV)
        {
            const int64_t s64Left = HEAP_Since(stBefore).Total();
            RIG_Figure("left_after_replay", s64Left);
        }
    }
    RIG_Expect(QN_Destroy(pHandle), "QN_Destroy");
}
