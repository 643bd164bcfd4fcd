// A folder that stands for a mounted card, and real sessions on it, fed by hand while the wall clock is the test's.
#ifndef QUARRIN_TESTS_RELIABILITY_SESSION_H
#define QUARRIN_TESTS_RELIABILITY_SESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "support/card.h"
#include "support/streams.h"

/// A session and how many pictures it was given.
struct FED_S
{
    libquarrin::tagQN_RECORD_HANDLER_S *pSession = nullptr;
    uint32_t u32Pictures = 0;
};

class RELIABILITY_TEST : public CARD_TEST
{
protected:
    void SetUp() override;
    void TearDown() override; // the clock is the machine's again

    /// Makes a session with splits after u32Split seconds; 0: none.
    FED_S Make(libquarrin::QN_FILE_FMT_E enFormat, uint32_t u32Split);

    /// Hands in the next picture. Every fifth is a key frame.
    static void Write(FED_S &stFed);

    /// Hands in u32Count pictures; the clock goes on by 40 ms for each.
    static void WriteOnClock(FED_S &stFed, uint32_t u32Count);

    static void Stop(FED_S &stFed); ///< stops and destroys

    /// Pictures in all files of the folder.
    uint32_t Found() const;

private:
    STDOUT_CAPTURE *m_pOut = nullptr;
};

#endif
