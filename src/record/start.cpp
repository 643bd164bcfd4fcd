// The start of a recording: a name of its own, and the first file.
// Threads: the host's. Locks: the card gate, shared; the session's stMutex; mutexWriter as a leaf around the writer.
// None is held while a start waits for a second of its own.

#include <exception>
#include <memory>

#include <time.h>

#include "record/session.h"
#include "storage/card.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/pause.h"
#include "util/results.h"

namespace libquarrin
{

// A start whose name is taken waits for the next second; a clock that stands still must not hold it for good.
constexpr useconds_t NAME_PAUSE_US = 10000;
constexpr int64_t STANDING_US = 3000000;

// Opens the first file under the name that the caller has claimed. Locks held: card gate, stMutex.
static uint32_t OpenFirstFileLocked(tagQN_RECORD_HANDLER_S *pSession)
{
    QN_RECORD_ForgetVideoLocked(pSession);
    void *pWriter = QN_RECORD_OpenWriterLocked(pSession);
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->pstPrivate->mutexWriter);
        pSession->pWriter = pWriter;
    }
    if (pWriter == nullptr)
    {
        QN_RECORD_ReleasePathLocked(pSession);
        return QN_RET_OPEN;
    }
    pSession->enRecordState = QN_RECORD_STATE_WAIT_KEY;
    QN_LOG_INFO_AS("QN_RecordStart", "record start");
    return QN_RET_OK;
}

/// One call of QN_RecordStart.
struct tagQN_START_S
{
    const char *pszNameTag;
    uint32_t u32Stops;  ///< of the session, before the call began
    bool bFirstTry;     ///< the name was not tried yet
    time_t tTried;      ///< second of the latest try
    int64_t s64SinceUs; ///< when this second was first seen, CLOCK_MONOTONIC
};

static bool IsMounted(const tagQN_RECORD_HANDLER_S *pSession)
{
    if (pSession->pstHandle->enState.load() != QN_STATE_E_MOUNTED)
    {
        QN_LOG_ERROR_AS("QN_RecordStart", "Cannot start record, storage is not mounted");
        return false;
    }
    return true;
}

// One try at a start. False: another file in progress has the name of this second.
static bool TryStart(tagQN_RECORD_HANDLER_S *pSession, tagQN_START_S &stStart, uint32_t &u32Result)
{
    tagQN_HANDLER_S *pHandle = pSession->pstHandle;
    // The gate: nobody opens a file on a card whose unmount has begun.
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    u32Result = QN_RET_STATE;
    if (!IsMounted(pSession))
    {
        return true;
    }
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pSession->stMutex);
    // Stopped meanwhile, or pulled: a start never begins to record after a stop has returned.
    if (pSession->enRecordState.load() != QN_RECORD_STATE_IDLE || pSession->pstPrivate->u32Stops != stStart.u32Stops)
    {
        return true;
    }
    if (stStart.bFirstTry)
    {
        QN_LOG_INFO_AS("QN_RecordStart", "record opening...");
        stStart.bFirstTry = false;
    }
    QN_RECORD_ReleasePathLocked(pSession);
    stStart.tTried = time(nullptr);
    pSession->tFileStart = stStart.tTried;
    pSession->tRunStart = 0;
    pSession->u32RunSeconds = 0;
    pSession->strNameTag = stStart.pszNameTag == nullptr ? "" : stStart.pszNameTag;
    pSession->strFilePath = QN_RECORD_PathLocked(pSession, pSession->tFileStart);
    if (pSession->strFilePath.empty())
    {
        u32Result = QN_RET_NO_MEMORY;
        return true;
    }
    if (!QN_CARD_Claim(pHandle, pSession->strFilePath))
    {
        return false;
    }
    pSession->pstPrivate->bPathClaimed = true;
    u32Result = OpenFirstFileLocked(pSession);
    return true;
}

// Tries until a second is the session's own. One that many want may take a while; only a clock that stands still does
// not bring another.
static uint32_t StartInItsSecond(tagQN_RECORD_HANDLER_S *pSession, tagQN_START_S &stStart)
{
    uint32_t u32Result = QN_RET_OK;
    time_t tBefore = 0;
    while (!TryStart(pSession, stStart, u32Result))
    {
        const int64_t s64NowUs = UTIL_NowUs();
        if (stStart.s64SinceUs == 0 || stStart.tTried != tBefore)
        {
            stStart.s64SinceUs = s64NowUs;
        }
        tBefore = stStart.tTried;
        if (s64NowUs - stStart.s64SinceUs >= STANDING_US)
        {
            QN_LOG_ERROR_AS("QN_RecordStart",
                            "another recording has the name of this second, and the clock stands still");
            return QN_RET_OPEN;
        }
        UTIL_Pause(NAME_PAUSE_US); // holding no lock
    }
    return u32Result;
}

uint32_t QN_RecordStart(tagQN_RECORD_HANDLER_S *pSession, const char *pszNameTag)
try
{
    if (pSession == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    tagQN_RECORD_PRIVATE_S *pPrivate = pSession->pstPrivate;
    // Before the call counts, so that it sees every stop and destroy that does not see it.
    tagQN_START_S stStart = {pszNameTag, pPrivate->u32Stops.load(), true, 0, 0};
    const UTIL_CALL call = QN_RECORD_BeginCall(pSession);
    if (!IsMounted(pSession))
    {
        return QN_RET_STATE;
    }
    // A busy session is told so without a wait for the card.
    if (pSession->enRecordState.load() != QN_RECORD_STATE_IDLE || pPrivate->bStarting.exchange(true))
    {
        return QN_RET_STATE;
    }
    const std::unique_ptr<std::atomic<bool>, void (*)(std::atomic<bool> *)> starting(
        &pPrivate->bStarting, [](std::atomic<bool> *pStarting) { *pStarting = false; });
    return StartInItsSecond(pSession, stStart);
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY; // before a name was claimed
}

} // namespace libquarrin
