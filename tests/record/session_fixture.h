// Record sessions on a card that is a folder, with the fake media back end behind them.
#ifndef QUARRIN_TESTS_SESSION_FIXTURE_H
#define QUARRIN_TESTS_SESSION_FIXTURE_H

#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/card.h"
#include "support/fake_media.h"
#include "support/fake_platform.h"
#include "support/printed.h"
#include "support/wait.h"

/// A mounted card. The test fails when the back end saw a call that may never be.
class SESSION_TEST : public CARD_TEST
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Parameters with video and audio, in Matroska, without splits.
    static libquarrin::tagQN_RECORD_PARAM_S Param();

    /// A session that is made, not started, and has the fake back end. QN_Destroy takes it away, or the test.
    libquarrin::tagQN_RECORD_HANDLER_S *Make(libquarrin::tagQN_RECORD_PARAM_S stParam);
    libquarrin::tagQN_RECORD_HANDLER_S *Make();

    /// Make, with splits after s32Split seconds when it is not negative, and start.
    libquarrin::tagQN_RECORD_HANDLER_S *Start(int32_t s32Split = -1, const char *pszTag = nullptr);

    /// Start, and the first video key frame "first".
    libquarrin::tagQN_RECORD_HANDLER_S *Run(int32_t s32Split = -1, const char *pszTag = nullptr);

    /// Writes a frame of the text's bytes; the call's result.
    static uint32_t Video(libquarrin::tagQN_RECORD_HANDLER_S *pSession, const std::string &strBytes, bool bKey,
                          uint64_t u64Pts = 1000);
    static uint32_t Audio(libquarrin::tagQN_RECORD_HANDLER_S *pSession, const std::string &strBytes, bool bKey = true,
                          uint64_t u64Pts = 1000);

    /// As if the file, and the run when there is one, had begun s32Seconds earlier.
    static void Age(libquarrin::tagQN_RECORD_HANDLER_S *pSession, int32_t s32Seconds);

    /// Splits a session that was started with a split duration, as if its file were a minute old; the next file has
    /// another tag, and so another name even in the second of the start. The path that the old file will have.
    std::string SplitOff(libquarrin::tagQN_RECORD_HANDLER_S *pSession);

    /// Puts a session into a state, from outside.
    static void SetState(libquarrin::tagQN_RECORD_HANDLER_S *pSession, int32_t s32State);

    /// Keeps the event thread in the handler of a mount event until FAKE_PLATFORM_Release. The ring is empty then.
    void StallDispatcher();

    /// The queued events, oldest first.
    std::vector<libquarrin::tagQN_EVENT_SLOT_S> Ring();

    /// Puts events that do nothing into the ring until it is full.
    void FillRing();

    /// Waits until the ring is full.
    bool WaitForFullRing();

    /// Path of a finished file of volume 0.
    std::string FinalPath(time_t tStart, time_t tEnd, const std::string &strTag = "", const char *pszExt = "mkv");

    /// Names in the folder of volume 0.
    std::vector<std::string> Names();
};

/// The next second has begun: what is started or split now has another name.
void TEST_WaitForNextSecond();

#endif
