// Record-session calls in random order, several sessions on one card, against a model of their states. The clock and
// the dispatcher are stepped by the input.

#include "fuzz.h"

#include <algorithm>
#include <filesystem>

#include <time.h>
#include <unistd.h>

#include "model.h"

using namespace libquarrin;

static int64_t s_s64ClockUs = 0;

// Stand before the C library's: the library's clock is the input's.
extern "C" time_t time(time_t *ptNow) noexcept
{
    const time_t tNow = s_s64ClockUs / 1000000;
    if (ptNow != nullptr)
    {
        *ptNow = tNow;
    }
    return tNow;
}

extern "C" int usleep(useconds_t u32Us)
{
    s_s64ClockUs += u32Us;
    return 0;
}

namespace
{

constexpr int64_t BEGIN_US = 1700000000000000;

struct WORLD_S
{
    tagQN_HANDLER_S *pHandle = nullptr;
    tagQN_RECORD_HANDLER_S *apSessions[MODEL_SESSIONS] = {};
    MODEL_S stModel;
};

void SetTight(WORLD_S &stWorld, bool bTight)
{
    stWorld.pHandle->astVolume[0].u32QuotaBytes = bTight ? 0 : UINT32_MAX;
    stWorld.stModel.bTight = bTight;
}

WORLD_S MakeWorld()
{
    WORLD_S stWorld;
    stWorld.pHandle = FUZZ_Handle();
    stWorld.pHandle->enState = QN_STATE_E_MOUNTED;
    stWorld.pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
    stWorld.pHandle->as32QuotaCountdown[0] = 200;
    gettimeofday(&stWorld.pHandle->astQuotaLastCheck[0], nullptr);
    for (tagQN_VOLUME_PARAM_S &stVolume : stWorld.pHandle->astVolume)
    {
        stVolume.bAutoDelete = false;
    }
    FUZZ_ClearRing(stWorld.pHandle);
    stWorld.stModel.strFolder = stWorld.pHandle->pszMountPoint + "/rec";
    stWorld.stModel.s32Countdown = 200;
    stWorld.stModel.s64ClockUs = BEGIN_US;
    s_s64ClockUs = BEGIN_US;
    SetTight(stWorld, false);
    return stWorld;
}

void Step(WORLD_S &stWorld)
{
    if (stWorld.pHandle->u32EventCount > 0)
    {
        QN_EVENT_ProcessThread(stWorld.pHandle);
        MODEL_Step(stWorld.stModel);
    }
}

// The one thread there is must never wait for room in the ring: a frame call posts two events at the most.
void MakeRoom(WORLD_S &stWorld)
{
    while (stWorld.pHandle->u32EventCount + 2 > QN_EVENT_SLOTS)
    {
        Step(stWorld);
    }
}

void Init(WORLD_S &stWorld, int32_t s32Session, FUZZ_INPUT &input)
{
    tagQN_RECORD_HANDLER_S *&pSession = stWorld.apSessions[s32Session];
    MODEL_SESSION_S &stSession = stWorld.stModel.astSessions[s32Session];
    uint8_t au8Set[] = {0, 0, 0, 1, 0x67, 1, 2, 3};
    const int32_t s32Format = static_cast<int8_t>(input.U8());
    const uint32_t u32Flags = input.U8();
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format > 6 ? s32Format % 4 : s32Format);
    stParam.stVideo.bEnable = u32Flags & 1 ? 0 : 1;
    stParam.stVideo.stSps = u32Flags & 1 ? tagQN_BYTES{} : tagQN_BYTES{au8Set, sizeof(au8Set)};
    stParam.stAudio.bEnable = 1;
    stParam.bAutoSplit = u32Flags & 2 ? 1 : 0;
    stParam.u32SplitSeconds = u32Flags >> 2;
    const bool bThere = pSession != nullptr;
    const uint32_t u32Result = QN_RecordInit(stWorld.pHandle, &stParam, pSession);
    if (bThere || !stWorld.stModel.bMounted)
    {
        FUZZ_Check(u32Result == (bThere ? 1u : 3u), "an init on a session, or without a card, is refused");
        FUZZ_Check((pSession != nullptr) == bThere, "and makes nothing");
        return;
    }
    FUZZ_Check(u32Result == 0, "an init with a card succeeds");
    FUZZ_Check((pSession == nullptr) == (stParam.enFormat > QN_FILE_FMT_E_MOV), "a format decides about the session");
    if (pSession != nullptr)
    {
        pSession->pstMediaApi = TABLE_Api();
        stSession = MODEL_SESSION_S();
        stSession.bExists = true;
        stSession.bVideo = stParam.stVideo.bEnable != 0;
        stSession.bSplit = stParam.bAutoSplit != 0;
        stSession.u32SplitSeconds = stParam.u32SplitSeconds;
        stSession.strExt = QN_STORAGE_FmtType2FileExt(stParam.enFormat);
    }
}

void Start(WORLD_S &stWorld, int32_t s32Session, uint32_t u32Tag)
{
    const char *const apszTags[] = {nullptr, "", "door", "]x[", "no/folder", "a", "b", "%s%n"};
    const char *pszTag = apszTags[u32Tag % 8];
    const uint32_t u32Result = QN_RecordStart(stWorld.apSessions[s32Session], pszTag);
    FUZZ_Check(u32Result == MODEL_Start(stWorld.stModel, s32Session, pszTag), "a start answers what the model says");
    FUZZ_Check(s_s64ClockUs == stWorld.stModel.s64ClockUs, "a start waits for a name as long as it is taken");
}

void Frame(WORLD_S &stWorld, int32_t s32Session, uint32_t u32Flags)
{
    MakeRoom(stWorld);
    uint8_t au8Data[] = {1, 2, 3, 4};
    const uint32_t u32Len = u32Flags >> 6;
    const bool bKey = (u32Flags & 1) != 0;
    const bool bVideo = (u32Flags & 2) != 0;
    int32_t s32Frames = 0;
    const int32_t s32NullWrites = TABLE_NullWrites();
    MODEL_SESSION_S &stSession = stWorld.stModel.astSessions[s32Session];
    WRITER_S *pBefore = stSession.pWriter;
    s32Frames = pBefore != nullptr ? pBefore->s32Frames : 0;
    FUZZ_Check(
        QN_RecordWriteFrame(stWorld.apSessions[s32Session], au8Data, u32Len, 1000, bKey ? 2 : 0, bVideo ? 4 : 0) == 0,
        "a frame call succeeds");
    const bool bWritten = MODEL_Frame(stWorld.stModel, s32Session, bKey, bVideo) == MODEL_FRAME_E_WRITTEN;
    FUZZ_Check(TABLE_NullWrites() - s32NullWrites == (bWritten && stSession.pWriter == nullptr ? 1 : 0),
               "frames without a writer are offered to none");
    if (stSession.pWriter != nullptr)
    {
        const int32_t s32Had = stSession.pWriter == pBefore ? s32Frames : 0;
        FUZZ_Check(stSession.pWriter->s32Frames - s32Had == (bWritten ? 1 : 0), "a frame is written once, or dropped");
    }
    FUZZ_Check(pBefore == nullptr || pBefore == stSession.pWriter || pBefore->s32Frames == s32Frames,
               "a frame before which a split is made goes into the new file");
}

void Update(WORLD_S &stWorld, int32_t s32Volume, bool bDelete)
{
    MakeRoom(stWorld);
    FUZZ_Check(QN_RecordStorageUpdate(stWorld.pHandle, static_cast<QN_VOLUME_ID_E>(s32Volume), bDelete ? 8 : 0) ==
                   MODEL_Update(stWorld.stModel, s32Volume, bDelete),
               "an update answers what the model says");
}

void Destroy(WORLD_S &stWorld, int32_t s32Session)
{
    MakeRoom(stWorld);
    FUZZ_Check(QN_RecordDestroy(stWorld.apSessions[s32Session]) == 0, "a destroy succeeds");
    FUZZ_Check(stWorld.apSessions[s32Session] == nullptr, "a destroyed session is no more");
    if (stWorld.stModel.astSessions[s32Session].bExists)
    {
        MODEL_Destroy(stWorld.stModel, s32Session);
    }
}

void Plug(WORLD_S &stWorld, bool bIn)
{
    MakeRoom(stWorld);
    const QN_EVENT_E enEvent = bIn ? QN_EVENT_E_HOTPLUG_IN : QN_EVENT_E_HOTPLUG_OUT;
    QN_EVENT_PushEvent(stWorld.pHandle, enEvent, nullptr);
    stWorld.stModel.dequeEvents.push_back({enEvent, 0, nullptr});
}

void MoveClock(WORLD_S &stWorld, int32_t s32Step)
{
    const int64_t s64Seconds = s32Step < -100 ? (s32Step + 100) * 86400 : s32Step; // a day, or some seconds
    s_s64ClockUs += s64Seconds * 1000000;
    stWorld.stModel.s64ClockUs = s_s64ClockUs;
}

// Calls without a session.
void CheckNull()
{
    tagQN_RECORD_HANDLER_S *pNone = nullptr;
    uint8_t u8Byte = 0;
    FUZZ_Check(QN_RecordStart(pNone, "") == 1 && QN_RecordPause(pNone) == 1 && QN_RecordResume(pNone) == 1 &&
                   QN_RecordStop(pNone) == 1 && QN_RecordWriteFrame(pNone, &u8Byte, 1, 0, 1, 1) == 1 &&
                   QN_REcordGetWriteBytes(pNone) == -1 && QN_RecordDestroy(pNone) == 0,
               "calls without a session are refused");
}

void CallSession(WORLD_S &stWorld, int32_t s32Session, uint32_t u32Call, FUZZ_INPUT &input)
{
    tagQN_RECORD_HANDLER_S *pSession = stWorld.apSessions[s32Session];
    if (pSession == nullptr)
    {
        CheckNull();
        return;
    }
    switch (u32Call)
    {
    case 1:
    case 2:
        Start(stWorld, s32Session, input.U8());
        break;
    case 3:
        FUZZ_Check(QN_RecordPause(pSession) == MODEL_Pause(stWorld.stModel, s32Session), "a pause follows the state");
        break;
    case 4:
        FUZZ_Check(QN_RecordResume(pSession) == MODEL_Resume(stWorld.stModel, s32Session), "so does a resume");
        break;
    case 5:
        FUZZ_Check(QN_RecordStop(pSession) == 0, "a stop succeeds");
        MODEL_Stop(stWorld.stModel, s32Session);
        break;
    case 6:
        FUZZ_Check(QN_RecordWriteFrame(pSession, nullptr, 1, 0, 1, 1) == 2, "a frame without data is refused");
        break;
    case 7:
        Destroy(stWorld, s32Session);
        break;
    default:
        Frame(stWorld, s32Session, input.U8());
        break;
    }
}

// The upper two bits of a call choose the session, the lower four the call.
void Call(WORLD_S &stWorld, FUZZ_INPUT &input)
{
    const uint32_t u32Call = input.U8();
    const int32_t s32Session = static_cast<int32_t>(u32Call >> 6);
    switch (u32Call & 31)
    {
    case 0:
        Init(stWorld, s32Session, input);
        break;
    case 16:
        Step(stWorld);
        break;
    case 17:
    case 18:
        MoveClock(stWorld, static_cast<int8_t>(input.U8()));
        break;
    case 19:
        Plug(stWorld, input.U8() % 4 != 0);
        break;
    case 20:
        Update(stWorld, static_cast<int8_t>(input.U8()) % 5, (u32Call & 32) != 0);
        break;
    case 21:
        SetTight(stWorld, (u32Call & 32) != 0);
        break;
    case 22:
        stWorld.pHandle->as32QuotaCountdown[0] = 1; // the next frame's check is due
        stWorld.stModel.s32Countdown = 1;
        break;
    case 23:
        TABLE_FailOpens(s32Session);
        break;
    case 24:
        TABLE_SetEmpty(s32Session == 0);
        break;
    default:
        CallSession(stWorld, s32Session, u32Call & 15, input);
        break;
    }
}

void CheckSession(const tagQN_RECORD_HANDLER_S *pSession, const MODEL_SESSION_S &stSession)
{
    FUZZ_Check((pSession != nullptr) == stSession.bExists, "there is a session or not");
    if (pSession == nullptr)
    {
        return;
    }
    FUZZ_Check(pSession->enRecordState.load() == stSession.s32State, "the state is the model's");
    FUZZ_Check(pSession->tFileStart == stSession.s64FileStart && pSession->tRunStart == stSession.s64RunStart &&
                   pSession->u32RunSeconds == stSession.u32RunSeconds,
               "the times are the model's");
    FUZZ_Check(pSession->strNameTag == stSession.strTag && pSession->strFilePath == stSession.strPath,
               "tag and path are the model's");
    FUZZ_Check(pSession->pWriter == stSession.pWriter, "the writer is the model's");
    FUZZ_Check(QN_REcordGetWriteBytes(const_cast<tagQN_RECORD_HANDLER_S *>(pSession)) ==
                   (stSession.pWriter == nullptr ? -1 : stSession.pWriter->s64Bytes),
               "the bytes are the writer's");
}

void CheckWorld(const WORLD_S &stWorld)
{
    const MODEL_S &stModel = stWorld.stModel;
    size_t sessions = 0;
    for (int32_t i = 0; i < MODEL_SESSIONS; ++i)
    {
        CheckSession(stWorld.apSessions[i], stModel.astSessions[i]);
        sessions += stModel.astSessions[i].bExists ? 1 : 0;
    }
    FUZZ_Check(stWorld.pHandle->lstRecord.size() == sessions, "the handle's list holds the sessions");
    FUZZ_Check(stWorld.pHandle->u32EventCount == stModel.dequeEvents.size(), "the queue is as long as the model's");
    FUZZ_Check((stWorld.pHandle->enState.load() == QN_STATE_E_MOUNTED) == stModel.bMounted, "so is the card's state");
    FUZZ_Check((stWorld.pHandle->enStorageState.load() == QN_STORAGE_STATE_E_FULL) == stModel.bFull,
               "and its fullness");
}

// What is left on the card is what the model says; the next input finds it empty.
void CheckFolder(const MODEL_S &stModel)
{
    std::set<std::string> setFound;
    for (const auto &entry : std::filesystem::directory_iterator(stModel.strFolder))
    {
        setFound.insert(entry.path());
    }
    for (const std::string &strPath : setFound)
    {
        std::filesystem::remove(strPath);
    }
    FUZZ_Check(setFound == stModel.setFiles, "the files on the card are those that were finished");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    WORLD_S stWorld = MakeWorld();
    FUZZ_INPUT input(pu8Data, size);
    for (int32_t i = 0; i < 150 && !input.IsEmpty(); ++i)
    {
        Call(stWorld, input);
        CheckWorld(stWorld);
    }
    for (int32_t i = 0; i < MODEL_SESSIONS; ++i)
    {
        Destroy(stWorld, i);
    }
    while (stWorld.pHandle->u32EventCount > 0)
    {
        Step(stWorld);
    }
    CheckWorld(stWorld);
    FUZZ_Check(stWorld.stModel.setClaims.empty(), "no name stays taken");
    CheckFolder(stWorld.stModel);
    TABLE_Reset();
    FUZZ_ClearRing(stWorld.pHandle);
    return 0;
}
