// One recorder on one card of its own, and the moment at which its power is cut. Many of them run side by side.
#ifndef QUARRIN_TESTS_RELIABILITY_CARD_RUN_H
#define QUARRIN_TESTS_RELIABILITY_CARD_RUN_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card/sim/card.h"
#include "recorder.h"
#include "verdict.h"

struct CARD_RUN_PARAM_S
{
    libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_FILE_FMT_E_MKV;
    bool bAudio = false;
    uint32_t u32Durable = 0;
    int64_t s64CutAfterMs = 0; ///< from the begin of the recording
};

class CARD_RUN
{
public:
    explicit CARD_RUN(const CARD_RUN_PARAM_S &stParam);
    ~CARD_RUN();
    CARD_RUN(const CARD_RUN &) = delete;
    CARD_RUN &operator=(const CARD_RUN &) = delete;

    /// Mounts the card, puts an older file on it, and begins to record.
    bool Begin();

    /// Cuts the power and kills the recorder when the moment has come; true once that was done.
    bool Poll();

    /// Mounts the card again; true when the file system mounts.
    bool MountAgain();

    /// The older file is as it was.
    bool IsOldFileWhole() const;

    std::vector<VERDICT_FILE_S> Look() const;

    /// Pictures of a file that were handed in s64Ms or longer before the cut.
    uint32_t GivenBefore(const VERDICT_FILE_S &stFile, int64_t s64Ms) const;

    /// Milliseconds from the moment at which a picture of a file had been handed in to the cut.
    int64_t AgeOf(const VERDICT_FILE_S &stFile, uint32_t u32Picture) const;

    /// Milliseconds from the moment at which the file was split off to the cut; -1: it was not.
    int64_t SplitBefore(const VERDICT_FILE_S &stFile) const;

    /// Milliseconds of the longest pass of --durable, the one that was cut included.
    int64_t LongestPassMs() const;

    const RECORDER_LOG_S &Log() const
    {
        return m_upRecorder->Log();
    }

    const CARD_RUN_PARAM_S stParam;

private:
    bool Mount() const;

    CARD m_card;
    std::unique_ptr<RECORDER> m_upRecorder;
    RECORDER_PARAM_S m_stRecorder;
    int64_t m_s64BeginMs = 0;
    int64_t m_s64CutMs = 0;
};

#endif
