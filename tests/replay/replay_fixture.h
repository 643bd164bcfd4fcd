// Replays of small real files on a card that is a folder.
#ifndef QUARRIN_TESTS_REPLAY_FIXTURE_H
#define QUARRIN_TESTS_REPLAY_FIXTURE_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/card.h"
#include "support/fake_platform.h"
#include "support/printed.h"
#include "support/streams.h"
#include "support/wait.h"

/// Writes an H.264 file with AAC of a container, frames 40 ms apart.
void TEST_WriteClip(const std::string &strPath, libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_FILE_FMT_E_TS,
                    int32_t s32Frames = 15);

/// A mounted card.
class REPLAY_TEST : public CARD_TEST
{
protected:
    void SetUp() override;

    /// A clip in the folder of a volume; its path.
    std::string Clip(int32_t s32Volume = 0,
                     const std::string &strName = "2024-03-01-08-15-00.To.2024-03-01-08-15-10.ts");

    /// The catalogue record of a path.
    static libquarrin::tagQN_FILE_INFO_S Info(const std::string &strPath);

    /// Opens a path; the replay, or null.
    libquarrin::tagQN_REPLAY_HANDLER_S *Open(const std::string &strPath);

    /// fn fails with a result, exactly this logged error, no replay and an unchanged list.
    void ExpectRefused(uint32_t u32Result, const std::string &strFunc, const std::string &strText,
                       const std::function<uint32_t(libquarrin::tagQN_REPLAY_HANDLER_S *&)> &fn);

    libquarrin::tagQN_REPLAY_PARAM_S m_stReplayParam = {};
};

#endif
