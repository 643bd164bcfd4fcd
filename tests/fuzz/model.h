// A model of record sessions on one card: the states, the files, the queue and the clock, as a host is promised them.
// The target makes each call on the library and on the model, and both must agree.
#ifndef QUARRIN_TESTS_FUZZ_MODEL_H
#define QUARRIN_TESTS_FUZZ_MODEL_H

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "libquarrin.h"
#include "table.h"

/// A file that was split off and is to be finished.
struct MODEL_SPLIT_S
{
    int32_t s32Session;
    WRITER_S *pWriter;
    std::string strPath;
    std::string strFinal;
    int64_t s64Start;
    int64_t s64End;
    bool bPathTaken;
    bool bClaimed;
    bool bDone;
};

/// A session; as the fields of tagQN_RECORD_HANDLER_S, which must be equal after each call.
struct MODEL_SESSION_S
{
    bool bExists = false;
    bool bVideo = false;
    bool bSplit = false;
    uint32_t u32SplitSeconds = 0;
    std::string strExt;
    int32_t s32State = 0;
    int64_t s64FileStart = 0;
    int64_t s64RunStart = 0;
    uint32_t u32RunSeconds = 0;
    std::string strTag;
    std::string strPath;
    WRITER_S *pWriter = nullptr;
    bool bClaimed = false;
};

struct MODEL_EVENT_S
{
    libquarrin::QN_EVENT_E enEvent;
    int32_t s32Volume;
    std::shared_ptr<MODEL_SPLIT_S> spSplit;
};

constexpr int32_t MODEL_SESSIONS = 4;

struct MODEL_S
{
    std::string strFolder; ///< of volume 0
    MODEL_SESSION_S astSessions[MODEL_SESSIONS];
    std::deque<MODEL_EVENT_S> dequeEvents;
    std::set<std::string> setClaims;
    std::set<std::string> setFiles; ///< finished files, by path
    bool bMounted = true;
    bool bFull = false;
    bool bTight = false;   ///< the quota of volume 0 is nothing
    bool abDelete[3] = {}; ///< automatic deletion, per volume
    int32_t s32Countdown = 0;
    bool bStale = false; ///< the last check is longer ago than counts
    int64_t s64ClockUs = 0;
};

int64_t MODEL_Now(const MODEL_S &stModel);

/// The library's calls: what they answer. pTable tells what the back end's opens came to, which the library has made by
/// then.
uint32_t MODEL_Start(MODEL_S &stModel, int32_t s32Session, const char *pszTag);
uint32_t MODEL_Pause(MODEL_S &stModel, int32_t s32Session);
uint32_t MODEL_Resume(MODEL_S &stModel, int32_t s32Session);
uint32_t MODEL_Stop(MODEL_S &stModel, int32_t s32Session);
void MODEL_Destroy(MODEL_S &stModel, int32_t s32Session);
uint32_t MODEL_Update(MODEL_S &stModel, int32_t s32Volume, bool bDelete);

/// A frame. The writer that it went to (null: none), or nothing.
enum MODEL_FRAME_E : int32_t
{
    MODEL_FRAME_E_DROPPED,
    MODEL_FRAME_E_WRITTEN,
};
MODEL_FRAME_E MODEL_Frame(MODEL_S &stModel, int32_t s32Session, bool bKey, bool bVideo);

/// The dispatcher handles one event.
void MODEL_Step(MODEL_S &stModel);

#endif
