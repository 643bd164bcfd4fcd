// The cameras: sessions that come and go, their control calls, and two threads of frames for each.

#include "world.h"

#include "chance.h"
#include "record/session.h"
#include "slots.h"
#include "support/streams.h"
#include "support/wait.h"
#include "watch.h"

using namespace libquarrin;

static constexpr time_t AGED_SECONDS = 10; // long enough to be kept

using CAMERA = GUARDED_S<tagQN_RECORD_HANDLER_S>;

void CAMERA_Prepare()
{
    (void)TEST_EncodeH264(); // made once and kept
    (void)TEST_EncodeAac();
}

static tagQN_RECORD_PARAM_S MakeParam()
{
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(CHANCE_Below(CHANCE_In100(10) ? 5 : 4)); // 4 is refused
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, TEST_EncodeH264());
    if (CHANCE_In100(50))
    {
        stParam.stAudio = TEST_AudioParam();
    }
    stParam.bAutoSplit = CHANCE_In100(80) ? 1 : 0;
    stParam.u32SplitSeconds = CHANCE_Below(2); // 0: at every key frame
    return stParam;
}

// Makes a session when there may be one.
static void Make(WORLD_S &stWorld, CAMERA &camera)
{
    stWorld.s32Busy += 1;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    if (!stWorld.bQuiet)
    {
        const WATCHED watched("QN_RecordInit");
        tagQN_RECORD_PARAM_S stParam = MakeParam();
        (void)QN_RecordInit(stWorld.card.pHandle, &stParam, pSession);
    }
    if (pSession == nullptr)
    {
        stWorld.s32Busy -= 1;
        return;
    }
    pSession->pstMediaApi = &g_stStressApi; // idle: nobody looks at it yet
    camera.pHandler.store(pSession, std::memory_order_release);
}

// What the library counts on a session; a stop is counted once more while it finishes the file.
static int32_t Counted(tagQN_RECORD_HANDLER_S *pSession)
{
    UTIL_CALLS_S &stCalls = pSession->pstPrivate->stCalls;
    pthread_mutex_lock(&stCalls.mutexCalls);
    const uint32_t u32Inside = stCalls.u32Inside;
    pthread_mutex_unlock(&stCalls.mutexCalls);
    return static_cast<int32_t>(u32Inside);
}

static void End(WORLD_S &stWorld, CAMERA &camera)
{
    tagQN_RECORD_HANDLER_S *pSession = GUARDED_BeginEnd<tagQN_RECORD_HANDLER_S>(camera, CHANCE_In100(70), Counted);
    if (pSession != nullptr)
    {
        const WATCHED watched("QN_RecordDestroy");
        if (QN_RecordDestroy(pSession) != 0 || pSession != nullptr)
        {
            WATCH_Violation("a session could not be destroyed");
        }
        stWorld.s32Busy -= 1;
    }
    GUARDED_Ended(camera);
}

void CAMERA_LeaveAll(WORLD_S &stWorld)
{
    for (CAMERA &camera : stWorld.aCameras)
    {
        (void)GUARDED_BeginEnd<tagQN_RECORD_HANDLER_S>(camera, true, Counted); // the handle ends it
    }
}

// The begin of the file goes back, so that it is kept when it ends.
static void Age(tagQN_RECORD_HANDLER_S *pSession)
{
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tFileStart -= AGED_SECONDS;
    pSession->tRunStart -= pSession->tRunStart > AGED_SECONDS ? AGED_SECONDS : 0;
    pthread_mutex_unlock(&pSession->stMutex);
}

// A result that the contract does not have.
static void Expect(const char *pszCall, uint32_t u32Result, std::initializer_list<uint32_t> lstAllowed)
{
    for (const uint32_t u32Allowed : lstAllowed)
    {
        if (u32Result == u32Allowed)
        {
            return;
        }
    }
    WATCH_Violation("%s answers %u", pszCall, u32Result);
}

static void Start(tagQN_RECORD_HANDLER_S *pSession, size_t camera)
{
    static const char *const s_apszTags[] = {"one", "two", "three"};
    const WATCHED watched("QN_RecordStart");
    const size_t tag = CHANCE_In100(25) ? 0 : camera; // the same tag in the same second: one has to wait
    Expect("QN_RecordStart", QN_RecordStart(pSession, CHANCE_In100(5) ? nullptr : s_apszTags[tag]), {0, 3, 7});
}

// Kinds of control calls, of a hundred; the rest sets the file's begin back.
constexpr uint32_t STOPS = 10;
constexpr uint32_t PAUSES = 17;
constexpr uint32_t RESUMES = 35;
constexpr uint32_t BYTES = 45;
constexpr uint32_t STARTS = 85;
constexpr int32_t STOP_WEIGHT = 2; // the library counts it once more while it finishes the file

// One control call on a session that is there.
static void Call(tagQN_RECORD_HANDLER_S *pSession, size_t camera, uint32_t u32Kind)
{
    if (u32Kind >= STOPS && u32Kind < STARTS && pSession->enRecordState.load() == QN_RECORD_STATE_IDLE)
    {
        Start(pSession, camera);
    }
    else if (u32Kind < STOPS)
    {
        const WATCHED watched("QN_RecordStop");
        Expect("QN_RecordStop", QN_RecordStop(pSession), {0});
    }
    else if (u32Kind < PAUSES)
    {
        const WATCHED watched("QN_RecordPause");
        Expect("QN_RecordPause", QN_RecordPause(pSession), {0, 3});
    }
    else if (u32Kind < RESUMES)
    {
        const WATCHED watched("QN_RecordResume");
        Expect("QN_RecordResume", QN_RecordResume(pSession), {0, 3});
    }
    else if (u32Kind < BYTES)
    {
        const WATCHED watched("QN_REcordGetWriteBytes");
        if (QN_REcordGetWriteBytes(pSession) < -1)
        {
            WATCH_Violation("QN_REcordGetWriteBytes answers below -1");
        }
    }
    else if (u32Kind < STARTS)
    {
        Start(pSession, camera); // busy, as a rule
    }
    else
    {
        Age(pSession);
    }
}

void CAMERA_Control(WORLD_S &stWorld, size_t number)
{
    CAMERA &mine = stWorld.aCameras[number];
    while (!stWorld.bStop)
    {
        if (mine.pHandler == nullptr) // this thread alone sets it
        {
            Make(stWorld, mine);
        }
        else if (stWorld.bQuiet || CHANCE_In100(4))
        {
            End(stWorld, mine);
        }
        // Now and then a hand on somebody else's session.
        const uint32_t u32Kind = CHANCE_Below(100);
        CAMERA &camera = CHANCE_In100(20) ? stWorld.aCameras[CHANCE_Below(WORLD_CAMERAS)] : mine;
        {
            const ENTERED<tagQN_RECORD_HANDLER_S> call(camera, u32Kind < STOPS ? STOP_WEIGHT : 1);
            if (call.Handler() != nullptr && !stWorld.bQuiet)
            {
                Call(call.Handler(), number, u32Kind);
            }
        }
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(25)));
    }
}

static void Write(WORLD_S &stWorld, tagQN_RECORD_HANDLER_S *pSession, const TEST_FRAME_S &stFrame, bool bVideo)
{
    const uint64_t u64Pts = stWorld.u64Pts.fetch_add(7, std::memory_order_relaxed);
    const WATCHED watched("QN_RecordWriteFrame");
    Expect("QN_RecordWriteFrame",
           QN_RecordWriteFrame(pSession, const_cast<unsigned char *>(stFrame.vecData.data()),
                               static_cast<uint32_t>(stFrame.vecData.size()), u64Pts, stFrame.bKey ? 1 : 0,
                               bVideo ? 1 : 0),
           {0});
}

void CAMERA_Feed(WORLD_S &stWorld, size_t camera, bool bVideo)
{
    const std::vector<TEST_FRAME_S> &vecVideo = TEST_EncodeH264();
    const std::vector<TEST_FRAME_S> &vecAudio = TEST_EncodeAac();
    CAMERA &mine = stWorld.aCameras[camera];
    for (size_t frame = CHANCE_Below(15); !stWorld.bStopFrames; ++frame)
    {
        {
            const ENTERED<tagQN_RECORD_HANDLER_S> call(mine);
            if (call.Handler() != nullptr)
            {
                // The thread of the sound hands in pictures too now and then.
                const bool bPicture = bVideo || CHANCE_In100(20);
                Write(stWorld, call.Handler(),
                      bPicture ? vecVideo[frame % vecVideo.size()] : vecAudio[frame % vecAudio.size()], bPicture);
            }
        }
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(3)));
    }
}

void CAMERA_DestroyAll(WORLD_S &stWorld)
{
    for (CAMERA &camera : stWorld.aCameras)
    {
        End(stWorld, camera);
    }
}
