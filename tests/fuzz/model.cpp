#include "model.h"

#include "fuzz.h"

using namespace libquarrin;

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t NAME_PAUSE_US = 10000; // between two tries at a name that is taken
constexpr int32_t THROTTLE_CALLS = 200;
constexpr int64_t SHORTEST_SECONDS = 5;

int64_t MODEL_Now(const MODEL_S &stModel)
{
    return stModel.s64ClockUs / SECOND_US;
}

static std::string InProgress(const MODEL_S &stModel, const MODEL_SESSION_S &stSession, int64_t s64Start)
{
    const std::string strComment = stSession.strTag.empty() ? "" : ".[" + stSession.strTag + "]";
    return stModel.strFolder + "/" + QN_STORAGE_PrettierTime(s64Start) + ".To.unknown" + strComment + "." +
           stSession.strExt;
}

static std::string Finished(const MODEL_S &stModel, const MODEL_SESSION_S &stSession, int64_t s64Start, int64_t s64End)
{
    const std::string strComment = stSession.strTag.empty() ? "" : ".[" + stSession.strTag + "]";
    return stModel.strFolder + "/" + QN_STORAGE_PrettierTime(s64Start) + ".To." + QN_STORAGE_PrettierTime(s64End) +
           strComment + "." + stSession.strExt;
}

static void Push(MODEL_S &stModel, QN_EVENT_E enEvent, int32_t s32Volume, std::shared_ptr<MODEL_SPLIT_S> spSplit)
{
    stModel.dequeEvents.push_back({enEvent, s32Volume, spSplit});
}

static void Release(MODEL_S &stModel, MODEL_SESSION_S &stSession)
{
    if (stSession.bClaimed)
    {
        stModel.setClaims.erase(stSession.strPath);
        stSession.bClaimed = false;
    }
}

// A file of at least five seconds that has bytes is kept.
static void Finish(MODEL_S &stModel, const WRITER_S *pWriter, int64_t s64Start, int64_t s64End,
                   const std::string &strFinal)
{
    FUZZ_Check(pWriter->s32Closes == 1, "finishing closes the writer");
    if (s64End - s64Start >= SHORTEST_SECONDS && pWriter->s64Bytes > 0)
    {
        stModel.setFiles.insert(strFinal);
    }
}

static void FinishSplit(MODEL_S &stModel, MODEL_SPLIT_S &stSplit)
{
    if (stSplit.bDone)
    {
        return;
    }
    stSplit.bDone = true;
    if (stSplit.pWriter != nullptr && !stSplit.bPathTaken)
    {
        Finish(stModel, stSplit.pWriter, stSplit.s64Start, stSplit.s64End, stSplit.strFinal);
    }
    if (stSplit.bClaimed)
    {
        stModel.setClaims.erase(stSplit.strPath);
    }
}

static void FinishSplitsOf(MODEL_S &stModel, int32_t s32Session)
{
    for (const MODEL_EVENT_S &stEvent : stModel.dequeEvents)
    {
        if (stEvent.spSplit != nullptr && (s32Session < 0 || stEvent.spSplit->s32Session == s32Session))
        {
            FinishSplit(stModel, *stEvent.spSplit);
        }
    }
}

uint32_t MODEL_Start(MODEL_S &stModel, int32_t s32Session, const char *pszTag)
{
    MODEL_SESSION_S &stSession = stModel.astSessions[s32Session];
    if (!stModel.bMounted || stSession.s32State != QN_RECORD_STATE_IDLE)
    {
        return 3;
    }
    for (;;) // the clock moves with every pause
    {
        Release(stModel, stSession);
        stSession.s64FileStart = MODEL_Now(stModel);
        stSession.s64RunStart = 0;
        stSession.u32RunSeconds = 0;
        stSession.strTag = pszTag == nullptr ? "" : pszTag;
        stSession.strPath = InProgress(stModel, stSession, stSession.s64FileStart);
        if (stModel.setClaims.insert(stSession.strPath).second)
        {
            stSession.bClaimed = true;
            stSession.pWriter = TABLE_LastOpened();
            if (stSession.pWriter == nullptr)
            {
                Release(stModel, stSession);
                return 7;
            }
            stSession.s32State = QN_RECORD_STATE_WAIT_KEY;
            return 0;
        }
        stModel.s64ClockUs += NAME_PAUSE_US;
    }
}

uint32_t MODEL_Pause(MODEL_S &stModel, int32_t s32Session)
{
    MODEL_SESSION_S &stSession = stModel.astSessions[s32Session];
    if (stSession.s32State != QN_RECORD_STATE_WAIT_KEY && stSession.s32State != QN_RECORD_STATE_RUNNING)
    {
        return 3;
    }
    stSession.s32State = QN_RECORD_STATE_PAUSED;
    stSession.u32RunSeconds += static_cast<uint32_t>(MODEL_Now(stModel) - stSession.s64RunStart);
    return 0;
}

uint32_t MODEL_Resume(MODEL_S &stModel, int32_t s32Session)
{
    MODEL_SESSION_S &stSession = stModel.astSessions[s32Session];
    if (stSession.s32State != QN_RECORD_STATE_PAUSED)
    {
        return 3;
    }
    stSession.s32State = QN_RECORD_STATE_RESUMED;
    return 0;
}

uint32_t MODEL_Stop(MODEL_S &stModel, int32_t s32Session)
{
    MODEL_SESSION_S &stSession = stModel.astSessions[s32Session];
    if (stSession.pWriter != nullptr)
    {
        Finish(stModel, stSession.pWriter, stSession.s64FileStart, MODEL_Now(stModel),
               Finished(stModel, stSession, stSession.s64FileStart, MODEL_Now(stModel)));
        stSession.pWriter = nullptr;
    }
    Release(stModel, stSession);
    stSession.s32State = QN_RECORD_STATE_IDLE;
    return 0;
}

void MODEL_Destroy(MODEL_S &stModel, int32_t s32Session)
{
    MODEL_SESSION_S &stSession = stModel.astSessions[s32Session];
    if (stSession.s32State != QN_RECORD_STATE_IDLE)
    {
        MODEL_Stop(stModel, s32Session);
    }
    FinishSplitsOf(stModel, s32Session);
    Push(stModel, QN_EVENT_E_QUOTA_THROTTLE, 0, nullptr);
    stSession = MODEL_SESSION_S();
}

uint32_t MODEL_Update(MODEL_S &stModel, int32_t s32Volume, bool bDelete)
{
    if (s32Volume < 0 || s32Volume > 2)
    {
        return 3;
    }
    stModel.abDelete[s32Volume] = bDelete;
    if (bDelete && stModel.bFull)
    {
        stModel.bFull = false;
        return 0;
    }
    Push(stModel, QN_EVENT_E_QUOTA_UPDATE, s32Volume, nullptr);
    return 0;
}

static void Split(MODEL_S &stModel, int32_t s32Session, MODEL_SESSION_S &stSession)
{
    const int64_t s64Now = MODEL_Now(stModel);
    const std::string strNewPath = InProgress(stModel, stSession, s64Now);
    const bool bSamePath = strNewPath == stSession.strPath;
    if (!bSamePath && !stModel.setClaims.insert(strNewPath).second)
    {
        return; // the next key frame tries again
    }
    auto spSplit = std::make_shared<MODEL_SPLIT_S>();
    *spSplit = {s32Session,
                stSession.pWriter,
                stSession.strPath,
                Finished(stModel, stSession, stSession.s64FileStart, s64Now),
                stSession.s64FileStart,
                s64Now,
                bSamePath,
                stSession.bClaimed && !bSamePath,
                false};
    Push(stModel, QN_EVENT_E_RECORD_AUTO_SPLIT, 0, spSplit);
    stSession.s64FileStart = s64Now;
    stSession.s64RunStart = s64Now;
    stSession.u32RunSeconds = 0;
    stSession.strPath = strNewPath;
    stSession.bClaimed = true;
    stSession.pWriter = TABLE_LastOpened();
}

MODEL_FRAME_E MODEL_Frame(MODEL_S &stModel, int32_t s32Session, bool bKey, bool bVideo)
{
    MODEL_SESSION_S &stSession = stModel.astSessions[s32Session];
    const int64_t s64Now = MODEL_Now(stModel);
    const bool bMayBegin = bKey && (bVideo || !stSession.bVideo);
    const bool bAwaits =
        stSession.s32State == QN_RECORD_STATE_WAIT_KEY || stSession.s32State == QN_RECORD_STATE_RESUMED;
    if (bAwaits && bMayBegin)
    {
        stSession.s64RunStart = s64Now;
        stSession.s32State = QN_RECORD_STATE_RUNNING;
    }
    if (stSession.s32State != QN_RECORD_STATE_RUNNING || stModel.bFull)
    {
        return MODEL_FRAME_E_DROPPED;
    }
    const uint32_t u32Seconds = static_cast<uint32_t>(s64Now - stSession.s64RunStart) + stSession.u32RunSeconds;
    if (stSession.bSplit && u32Seconds >= stSession.u32SplitSeconds && bMayBegin)
    {
        Split(stModel, s32Session, stSession);
    }
    Push(stModel, QN_EVENT_E_QUOTA_THROTTLE, 0, nullptr);
    return MODEL_FRAME_E_WRITTEN;
}

static void CheckQuota(MODEL_S &stModel)
{
    stModel.bFull = stModel.bTight && !stModel.abDelete[0];
    if (stModel.bTight && stModel.abDelete[0])
    {
        stModel.setFiles.clear(); // the files in progress stay
    }
}

static void CheckThrottled(MODEL_S &stModel)
{
    stModel.s32Countdown -= 1;
    if (stModel.s32Countdown <= 0)
    {
        stModel.s32Countdown = THROTTLE_CALLS;
    }
    else if (!stModel.bStale)
    {
        return;
    }
    stModel.bStale = false;
    CheckQuota(stModel);
}

void MODEL_Step(MODEL_S &stModel)
{
    const MODEL_EVENT_S stEvent = stModel.dequeEvents.front();
    switch (stEvent.enEvent)
    {
    case QN_EVENT_E_HOTPLUG_IN:
        stModel.bMounted = true;
        Push(stModel, QN_EVENT_E_MOUNT_DONE, 0, nullptr);
        break;
    case QN_EVENT_E_HOTPLUG_OUT:
        for (MODEL_SESSION_S &stSession : stModel.astSessions)
        {
            stSession.s32State = stSession.bExists ? QN_RECORD_STATE_STOPPING : stSession.s32State;
        }
        FinishSplitsOf(stModel, -1);
        stModel.bMounted = false;
        break;
    case QN_EVENT_E_MOUNT_DONE:
        stModel.bStale = true;
        if (stModel.bFull && stModel.bMounted)
        {
            CheckQuota(stModel); // every volume's, the first one's last
        }
        break;
    case QN_EVENT_E_RECORD_AUTO_SPLIT:
        FinishSplit(stModel, *stEvent.spSplit);
        break;
    case QN_EVENT_E_QUOTA_UPDATE:
        if (stEvent.s32Volume == 0)
        {
            CheckQuota(stModel);
        }
        // The second volume has room, and one that has room takes the storage's fullness back; the third is not
        // enabled.
        stModel.bFull = stModel.bFull && stEvent.s32Volume != 1;
        break;
    default:
        CheckThrottled(stModel);
        break;
    }
    stModel.dequeEvents.pop_front();
}
