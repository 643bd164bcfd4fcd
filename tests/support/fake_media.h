// A media back end for tests: its writers make small real files, and it keeps a record of every call on them.
#ifndef QUARRIN_TESTS_FAKE_MEDIA_H
#define QUARRIN_TESTS_FAKE_MEDIA_H

#include <cstdint>
#include <string>
#include <vector>

#include "libquarrin.h"

/// One frame that reached a writer.
struct FAKE_FRAME_S
{
    std::string strBytes;
    uint64_t u64Pts;
    bool bKey;
    bool bVideo;
};

/// What one writer went through.
struct FAKE_WRITER_S
{
    void *pWriter;                              ///< what the open slot returned
    libquarrin::tagQN_RECORD_PARAM_S *pstParam; ///< what the open slot was given
    std::string strPath;
    std::vector<FAKE_FRAME_S> vecFrames;
    int32_t s32Closes;
};

enum FAKE_CALL_E : int32_t
{
    FAKE_CALL_E_NONE,
    FAKE_CALL_E_OPEN,
    FAKE_CALL_E_WRITE,
    FAKE_CALL_E_CLOSE,
};

/// Forgets everything. No call may be held up, and nobody may use an old writer any more.
void FAKE_MEDIA_Reset();

/// The table: the three write slots and the byte counter, no read slots.
const libquarrin::tagQN_MEDIA_API_S *FAKE_MEDIA_Api();

/// The next s32Count opens fail and leave no file.
void FAKE_MEDIA_FailOpens(int32_t s32Count);

/// Every write reports an error from now on; nothing reaches the file.
void FAKE_MEDIA_FailWrites();

/// Files begin with this; empty makes them begin at size 0.
void FAKE_MEDIA_SetHeader(const std::string &strHeader);

/// Holds up the calls of one kind until FAKE_MEDIA_Release; with s32Count only the next so many.
void FAKE_MEDIA_Stall(FAKE_CALL_E enCall, int32_t s32Count = INT32_MAX);

/// Waits until a call is held up. False after s32Ms milliseconds.
bool FAKE_MEDIA_WaitStalled(int32_t s32Ms = 5000);

/// Lets all held-up calls go on, and stalls no more.
void FAKE_MEDIA_Release();

/// The writers so far, in order of their opening.
std::vector<FAKE_WRITER_S> FAKE_MEDIA_Writers();

/// Writers that were opened.
int32_t FAKE_MEDIA_Opens();

/// Writers that were opened and not closed.
int32_t FAKE_MEDIA_OpenWriters();

/// Calls of the write slot with a null writer.
int32_t FAKE_MEDIA_NullWrites();

/// What no caller may ever do, as sentences: calls on a closed writer, two closes, two calls at once on one writer, two
/// open writers on one path.
std::vector<std::string> FAKE_MEDIA_Violations();

#endif
