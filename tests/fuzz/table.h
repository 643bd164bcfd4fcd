// A media back end of the fuzz target's own: its writers make small real files and count what is done with them.
#ifndef QUARRIN_TESTS_FUZZ_TABLE_H
#define QUARRIN_TESTS_FUZZ_TABLE_H

#include <string>

#include "libquarrin.h"

/// One writer; it stays after its close, until TABLE_Reset.
struct WRITER_S
{
    std::string strPath;
    int32_t s32File = -1;
    int64_t s64Bytes = 0; ///< in the file
    int32_t s32Frames = 0;
    int32_t s32Closes = 0;
};

const libquarrin::tagQN_MEDIA_API_S *TABLE_Api();

/// Forgets the writers, which must all be closed.
void TABLE_Reset();

/// The next s32Count opens fail.
void TABLE_FailOpens(int32_t s32Count);

/// Files begin empty, or with a byte.
void TABLE_SetEmpty(bool bEmpty);

/// Opens that were tried, and what came of the last one.
int32_t TABLE_Opens();
WRITER_S *TABLE_LastOpened();

/// Writes on a null writer.
int32_t TABLE_NullWrites();

#endif
